// Names of objects: "interface/instance".
#pragma once

#include <hwbinder/IBinder.h>
#include <hwbinder/Parcel.h>

#include <cstdint>
#include <string>

namespace bthal::rpc {

// Makes object known under name to other processes and to this one; the first call opens this
// process's socket. The latest object of a name is the one that is found.
android::status_t Publish(const std::string& name,
                          const android::sp<android::hardware::IBinder>& object);

// The object of that name, in this process or another one; null when there is none. With wait, null
// when there is still none after the time in milliseconds that BTHAL_LOOKUP_TIMEOUT_MS names, 5000
// when it names none. A service that does not answer counts as absent after the same time.
android::sp<android::hardware::IBinder> Find(const std::string& name, bool wait);
// Why the calling thread's last Find() found nothing: see lastLookUpError().
int LastFindError();

// For connections: answers a call to object 0 of this process. False when it is malformed.
bool AnswerNameCall(uint32_t code, const android::hardware::Parcel& data,
                    android::hardware::Parcel* reply);

}  // namespace bthal::rpc
