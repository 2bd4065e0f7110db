#define LOG_TAG "hidl"

#include <android-base/logging.h>
#include <hidl/Status.h>

namespace android::hardware {
namespace {

std::string StatusName(status_t status) {
  if (status == DEAD_OBJECT) return "DEAD_OBJECT";
  if (status == FAILED_TRANSACTION) return "FAILED_TRANSACTION";
  if (status == UNKNOWN_TRANSACTION) return "UNKNOWN_TRANSACTION";
  return std::to_string(status);
}

}  // namespace

Status Status::fromExceptionCode(int32_t exception, const char* message) {
  Status status;
  status.setException(exception, message);
  return status;
}

Status Status::fromStatusT(status_t error) {
  Status status;
  status.setFromStatusT(error);
  return status;
}

void Status::setException(int32_t exception, const std::string& message) {
  mErrorCode = exception == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : status_t{OK};
  mException = exception;
  mMessage = message;
}

void Status::setFromStatusT(status_t status) {
  mErrorCode = status;
  mException = status == OK ? EX_NONE : EX_TRANSACTION_FAILED;
  mMessage.clear();
}

std::string Status::description() const {
  if (isOk()) return "No error";
  std::string text = "Status(" + std::to_string(mException) + "): '";
  if (mException == EX_TRANSACTION_FAILED) text += StatusName(mErrorCode) + ": ";
  return text + mMessage + "'";
}

std::ostream& operator<<(std::ostream& out, const Status& status) {
  return out << status.description();
}

namespace details {

return_status& return_status::operator=(return_status&& other) noexcept {
  noticeUnchecked();
  mStatus = std::move(other.mStatus);
  mCheckedStatus = other.mCheckedStatus;
  other.mCheckedStatus = true;
  return *this;
}

void return_status::logUnchecked() const {
  LOG(ERROR) << "nobody looked at the status of a failed call: " << mStatus;
}

void return_status::failUse() const {
  LOG(FATAL) << "the value of a failed call was used: " << mStatus;
  abort();
}

}  // namespace details
}  // namespace android::hardware
