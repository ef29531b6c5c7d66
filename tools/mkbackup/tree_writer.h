// tree_writer: turns directory trees into one plain backup file in the arco
// format, as a finished backup job leaves it: each file as a header and its
// payload, then the sentinel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A file described only by its size: written as a regular entry whose
// payload is a hole, so a test can have a file of many GiB on disk for free.
struct SyntheticFile {
    std::string name;  // the name in the archive, as given
    uint64_t size = 0;
};

struct TreeWriterOptions {
    std::vector<std::string> sources;  // directories (or single files) to back up
    // Replaces the source's absolute path at the start of its names; empty:
    // names are the absolute paths. Must not be empty when set, so that
    // every name below a source has a '/'.
    std::string namePrefix;
    bool directories = true;  // write directory entries ('5')
    std::vector<SyntheticFile> synthetic;
};

// What was written, in archive order, for the backup's catalog.
struct WrittenEntry {
    std::string name;
    std::string link;
    char linkflag = '0';
    uint64_t headerOffset = 0;  // bytes
    uint64_t blocks = 0;        // header, extended and payload blocks
    uint64_t size = 0;          // true file size
};

struct TreeWriteResult {
    std::vector<WrittenEntry> entries;
    uint64_t files = 0;         // regular files, links and directories written
    uint64_t payloadBytes = 0;  // file bytes described (synthetic ones included)
    uint64_t archiveBytes = 0;  // length of the logical stream, sentinel included
};

// Creates `path` (never over an existing file: O_EXCL, mode 0660) and writes
// the archive. Data of sparse inputs is copied extent by extent, so holes
// stay holes. Returns 0, or -1 with a message in *error; a partly written
// file is removed.
int writeTreeBackup(const std::string& path, const TreeWriterOptions& options, TreeWriteResult* result,
                    std::string* error);
