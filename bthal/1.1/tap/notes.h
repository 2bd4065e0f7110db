#pragma once

namespace android::hardware::bluetooth::tap {

// From now on the tap notes log lines of level warning and above and, while a bring-up goes on, its
// steps as the records have them. For the life of the process.
void NoteLogAndSteps();

}  // namespace android::hardware::bluetooth::tap
