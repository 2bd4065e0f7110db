package android.vendor.powerstats;

import android.hardware.power.stats.StateResidency;

/** Implemented by an entity whose residency the provider collects. */
interface ITavioStateResidencyCallback {
    /** The totals known at this moment, one entry per state. */
    StateResidency[] getStateResidency();
}
