#pragma once

#include <utils/RefBase.h>

#include <vector>

namespace bthal::rpc {

class Proxy;

// Tells those who linked to the death of these objects, in order, on a thread of its own: a pool
// whose threads are all busy cannot hold a death up.
void PostObituaries(std::vector<android::sp<Proxy>> dead);

}  // namespace bthal::rpc
