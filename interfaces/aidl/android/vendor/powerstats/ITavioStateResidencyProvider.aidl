package android.vendor.powerstats;

import android.vendor.powerstats.ITavioStateResidencyCallback;

/** The power-statistics service, as far as it takes residency from other processes. */
interface ITavioStateResidencyProvider {
    /** @param entityName under which the provider reports what cb tells it */
    void registerCallback(in @utf8InCpp String entityName, in ITavioStateResidencyCallback cb);

    void unregisterCallback(in ITavioStateResidencyCallback cb);
}
