#pragma once

namespace android::hardware {

class ProcessState {
 public:
  static ProcessState* self();
  // From now on calls into this process are served, as far as the pool's size allows. Generated
  // code calls it before it hands an object of this process to another one.
  void startThreadPool();
};

}  // namespace android::hardware
