// arco_walk: a sequential walk over a plain backup file (the logical stream
// itself: not compressed, not encrypted), entry by entry up to the sentinel.
// For tools and checks that want headers and payload positions without the
// archive filter.
#pragma once

#include "archive/arco.h"

#include <cstdint>

// One entry as the walk finds it.
struct ArcoWalkEntry {
    ArcoEntry entry;
    ArcoLayout layout;
    uint64_t headerOffset = 0;  // of the header block
    uint64_t dataOffset = 0;    // of the first payload byte
};

// Called for each entry; returns all ones to stop the walk.
using ArcoWalkFn = uint64_t (*)(const ArcoWalkEntry& entry, void* context);

// Walks the archive on `fd` from offset 0, reading with pread (the file
// offset is left alone). Returns the number of entries, with *endOffset (when
// given) the offset of the sentinel, or of the stopping entry's header when
// the callback stopped the walk. -1 with errno EBADMSG for a block that is no
// header ("Bad tar header"), a bad layout, or an archive that ends inside an
// entry or before its sentinel (each logged at level 0 with the offset); the
// errno of a failed read otherwise.
long arco_walk(int fd, ArcoWalkFn fn, void* context, uint64_t* endOffset = nullptr);
