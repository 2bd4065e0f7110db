// The outcome of a call: a status, or a value that is there only when the status is good.
#pragma once

#include <hidl/HidlSupport.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

namespace android::hardware {

class Status final {
 public:
  enum Exception : int32_t {
    EX_NONE = 0,
    EX_ILLEGAL_ARGUMENT = -3,
    EX_NULL_POINTER = -4,
    // The call did not get through; see transactionError().
    EX_TRANSACTION_FAILED = -129,
  };

  Status() = default;
  static Status ok() { return Status(); }
  static Status fromExceptionCode(int32_t exception, const char* message = "");
  static Status fromStatusT(status_t status);

  void setException(int32_t exception, const std::string& message);
  void setFromStatusT(status_t status);

  bool isOk() const { return mException == EX_NONE; }
  int32_t exceptionCode() const { return mException; }
  const char* exceptionMessage() const { return mMessage.c_str(); }
  status_t transactionError() const {
    return mException == EX_TRANSACTION_FAILED ? mErrorCode : static_cast<status_t>(OK);
  }
  std::string description() const;

 private:
  int32_t mException = EX_NONE;
  status_t mErrorCode = OK;
  std::string mMessage;
};

std::ostream& operator<<(std::ostream& out, const Status& status);

namespace details {

// What every Return<T> has. A failure that is not looked at is logged; the value of a failed call
// that is used without looking ends the process.
class return_status {
 public:
  return_status() = default;
  return_status(const Status& status) : mStatus(status) {}  // NOLINT: as generated code needs it
  return_status(return_status&& other) noexcept { *this = std::move(other); }
  return_status& operator=(return_status&& other) noexcept;
  return_status(const return_status&) = delete;
  return_status& operator=(const return_status&) = delete;
  ~return_status() { noticeUnchecked(); }

  bool isOk() const {
    mCheckedStatus = true;
    return mStatus.isOk();
  }
  bool isDeadObject() const {
    mCheckedStatus = true;
    return mStatus.transactionError() == DEAD_OBJECT;
  }
  std::string description() const {
    mCheckedStatus = true;
    return mStatus.description();
  }
  // Ends the process when the call failed.
  void assertOk() const {
    if (!mStatus.isOk()) failUse();
  }

 private:
  void noticeUnchecked() const {
    if (!mCheckedStatus && !mStatus.isOk()) logUnchecked();
  }
  void logUnchecked() const;
  [[noreturn]] void failUse() const;

  Status mStatus;
  mutable bool mCheckedStatus = false;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
 public:
  Return(T value) : mValue(std::move(value)) {}            // NOLINT: handlers return plain values
  Return(const Status& status) : return_status(status) {}  // NOLINT
  template <typename U>
  Return(Return<U>&& other)  // NOLINT
      : return_status(std::move(other)), mValue(std::move(other.mValue)) {}
  Return(Return&&) noexcept = default;
  Return& operator=(Return&&) noexcept = default;
  ~Return() = default;

  operator T() const {  // NOLINT
    assertOk();
    return mValue;
  }
  T withDefault(T fallback) { return isOk() ? mValue : fallback; }

 private:
  template <typename U>
  friend class Return;
  T mValue{};
};

template <>
class Return<void> : public details::return_status {
 public:
  Return() = default;
  Return(const Status& status) : return_status(status) {}  // NOLINT
  Return(Return&&) noexcept = default;
  Return& operator=(Return&&) noexcept = default;
  ~Return() = default;
};

inline Return<void> Void() { return Return<void>(); }

}  // namespace android::hardware
