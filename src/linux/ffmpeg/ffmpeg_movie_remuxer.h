// Turns a finished fragmented movie into an ordinary QuickTime movie with its index in place,
// without re-encoding: the packets are copied into a hidden sibling file, which is made durable
// and then renamed over the original in one step. Until the rename the fragmented file stays as
// it is, so a failure (or a crash) at any point leaves a playable recording.
//
// Threads: any thread; blocks while it copies (about 20 MB a minute of recording).
#pragma once

#include <cstdint>
#include <string>

#include "platform/result.h"

namespace gb::linuxp {

// `timelineShiftMicroseconds` is taken off every stream (the growing file's priming shift), so
// the audio encoder's priming lands before time zero, where the index's edit list hides it.
// `ownFd`, when not -1, is the recording's own file: the movie is read from it, and the result
// replaces `path` only while `path` still names it. A recording whose name was removed meanwhile
// is saved under it again; one whose name now belongs to another file, or whose folder is gone,
// fails with WriterErrorCode::fileGone.
[[nodiscard]] Result<void> rewriteAsIndexedMovie(const std::string& path,
                                                 int64_t timelineShiftMicroseconds,
                                                 int ownFd = -1);

// The hidden sibling that rewriteAsIndexedMovie() writes before its rename.
[[nodiscard]] std::string rewriteTemporaryPath(const std::string& path);

}  // namespace gb::linuxp
