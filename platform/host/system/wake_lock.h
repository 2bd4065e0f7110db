#pragma once

namespace bthal {

// The kernel does not release what a process held that died. A daemon calls this when it starts and
// is alone on its root folder.
void ReleaseWakeLocksOfTheDead();

}  // namespace bthal
