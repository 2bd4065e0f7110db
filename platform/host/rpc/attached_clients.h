#pragma once

namespace bthal::rpc {

// Counts what clients have attached to this process: objects of theirs whose death it waits for,
// such as the callbacks of a stack. Tells whoever supervises the process when the first one comes
// and when the last one goes. Any thread.
void CountAttached(int change);

}  // namespace bthal::rpc
