// arco_walk: header after header through a plain backup file, checking each
// against the file's size before the callback sees it.
#include "archive/arco_walk.h"

#include "foundation/logger.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Reads exactly `n` bytes at `offset`. 1 when read, 0 when the file ends
// first, -1 on a read error (errno stands).
int readAt(int fd, void* buf, size_t n, uint64_t offset)
{
    auto* p = static_cast<char*>(buf);
    size_t done = 0;
    while (done < n) {
        ssize_t got = pread(fd, p + done, n - done, static_cast<off_t>(offset + done));
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_errno_printf(0, "%s:%d: Failed reading ARCO header at 0x%llX virtual.\n", __FILE__, __LINE__,
                             static_cast<unsigned long long>(offset));
            return -1;
        }
        if (got == 0) {
            return 0;
        }
        done += static_cast<size_t>(got);
    }
    return 1;
}

long badArchive(const char* what, uint64_t offset)
{
    log_printf(0, "%s:%d: %s at 0x%llX\n", __FILE__, __LINE__, what, static_cast<unsigned long long>(offset));
    errno = EBADMSG;
    return -1;
}

} // namespace

long arco_walk(int fd, ArcoWalkFn fn, void* context, uint64_t* endOffset)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        return -1;
    }
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    uint64_t offset = 0;
    long count = 0;
    for (;;) {
        arco_header h;
        int got = readAt(fd, h.b, sizeof h.b, offset);
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            return badArchive("Archive ends without its sentinel", offset);
        }
        if (arco_is_end(h.b)) {
            break;
        }
        if (!is_tar(h.b)) {
            log_printf(0, "%s:%d: Bad tar header\n", __FILE__, __LINE__);
            return badArchive("No ARCO header", offset);
        }
        ArcoWalkEntry w;
        w.headerOffset = offset;
        if (arco_entry_layout(h, &w.layout) != 0) {
            return badArchive("Bad entry layout", offset);
        }
        const uint64_t blocks = arco_entry_blocks(w.layout);
        if (blocks > fileSize / ARCO_BLOCKSIZE || offset > fileSize - blocks * ARCO_BLOCKSIZE) {
            return badArchive("Archive ends inside the entry", offset);
        }
        std::string ext(w.layout.extBlocks * ARCO_BLOCKSIZE, '\0');
        if (!ext.empty() && readAt(fd, ext.data(), ext.size(), offset + ARCO_BLOCKSIZE) != 1) {
            return badArchive("Archive ends inside the extended header", offset);
        }
        if (arco_decode_entry(h, ext.data(), ext.size(), &w.entry) != 0) {
            return badArchive("Bad extended header", offset);
        }
        w.dataOffset = offset + (1 + w.layout.extBlocks) * ARCO_BLOCKSIZE;
        ++count;
        if (fn != nullptr && fn(w, context) == ~uint64_t{0}) {
            break;
        }
        offset += blocks * ARCO_BLOCKSIZE;
    }
    if (endOffset != nullptr) {
        *endOffset = offset;
    }
    return count;
}
