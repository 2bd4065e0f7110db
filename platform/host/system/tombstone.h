#pragma once

namespace bthal {

// From now on a fatal signal leaves a file in ROOT/data/tombstones, named tombstone_00 to
// tombstone_31 (the first free one, else the oldest): process, signal, abort message, and the
// crashed thread's frames with their names. The signal then ends the process as it would have.
void InstallTombstones();

}  // namespace bthal
