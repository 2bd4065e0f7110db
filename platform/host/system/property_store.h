#pragma once

#include <android-base/thread_annotations.h>

#include <map>
#include <mutex>
#include <string>

namespace bthal {

// System properties: one "name=value" per line, "#" begins a comment. Read when it is made from
// vendor/build.prop and then data/property/persistent.prop below the root folder; those whose name
// begins with "persist." are written back to the latter as soon as they change. Any thread.
class PropertyStore {
 public:
  PropertyStore();

  // Empty when it is not set; callers cannot tell that from a value that is empty.
  std::string Value(const std::string& name) const EXCLUDES(mutex_);
  // False, with a line, when it may not be set.
  bool Set(const std::string& name, const std::string& value) EXCLUDES(set_mutex_) EXCLUDES(mutex_);

 private:
  bool Change(const std::string& name, const std::string& value) EXCLUDES(mutex_);
  void Load(const char* path) NO_THREAD_SAFETY_ANALYSIS;  // from the constructor

  std::mutex set_mutex_;      // one change at a time, with its file; taken before mutex_
  mutable std::mutex mutex_;  // a leaf: a reader does not wait for a disk
  std::map<std::string, std::string> values_ GUARDED_BY(mutex_);
};

}  // namespace bthal
