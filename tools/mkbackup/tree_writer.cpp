// tree_writer: writes directory trees as a plain arco backup file. Entries
// go out in sorted order, hard links after their first name, and file data
// extent by extent so that sparse inputs (and synthetic files) stay sparse.
#include "tree_writer.h"

#include "archive/arco.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

struct FdCloser {
    int fd;
    ~FdCloser()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
};

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};

std::string errnoText(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + strerror(errno);
}

class TreeWriter {
public:
    TreeWriter(int out, const TreeWriterOptions& options, TreeWriteResult* result, std::string* error)
        : out_(out), options_(options), result_(result), error_(error)
    {
    }

    bool addSource(const std::string& source);
    bool addSynthetic(const SyntheticFile& file);
    bool finish();

private:
    bool addPath(const std::string& path, const std::string& name);
    bool addDirectory(const std::string& path, const std::string& name, const struct stat& st);
    bool addRegular(const std::string& path, const std::string& name, const struct stat& st);
    bool addSymlink(const std::string& path, const std::string& name, const struct stat& st);
    // Writes the header (and extended blocks) of `e` at the current position
    // and records it; *dataOffset gets where its payload starts.
    bool writeHeader(const ArcoEntry& e, uint64_t* dataOffset);
    bool copyData(const std::string& path, uint64_t size, uint64_t dataOffset);
    bool copyRange(int in, const std::string& path, uint64_t from, uint64_t to, uint64_t dataOffset);
    bool writeAt(const void* data, size_t size, uint64_t offset);
    bool fail(const std::string& message)
    {
        *error_ = message;
        return false;
    }

    int out_;
    const TreeWriterOptions& options_;
    TreeWriteResult* result_;
    std::string* error_;
    uint64_t position_ = 0;
    std::map<std::pair<dev_t, ino_t>, std::string> firstNames_;  // hard-linked files seen
};

ArcoEntry entryFromStat(const std::string& name, char linkflag, const struct stat& st)
{
    ArcoEntry e;
    e.name = name;
    e.linkflag = linkflag;
    e.mode = static_cast<uint32_t>(st.st_mode);
    e.uid = static_cast<uint32_t>(st.st_uid);
    e.gid = static_cast<uint32_t>(st.st_gid);
    e.mtime = static_cast<int64_t>(st.st_mtime);
    return e;
}

bool TreeWriter::writeAt(const void* data, size_t size, uint64_t offset)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = pwrite(out_, p, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return fail(std::string("write failed: ") + strerror(errno));
        }
        p += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

bool TreeWriter::writeHeader(const ArcoEntry& e, uint64_t* dataOffset)
{
    std::string blocks;
    if (arco_encode_entry(e, &blocks) < 0) {
        return fail("cannot encode a header for \"" + e.name + "\"");
    }
    if (!writeAt(blocks.data(), blocks.size(), position_)) {
        return false;
    }
    arco_header h;
    memcpy(h.b, blocks.data(), sizeof h.b);
    ArcoLayout layout;
    if (arco_entry_layout(h, &layout) != 0) {
        return fail("inconsistent header for \"" + e.name + "\"");
    }
    WrittenEntry w;
    w.name = e.name;
    w.link = e.link;
    w.linkflag = e.linkflag;
    w.headerOffset = position_;
    w.blocks = arco_entry_blocks(layout);
    w.size = e.realSize;
    result_->entries.push_back(w);
    result_->files++;
    *dataOffset = position_ + blocks.size();
    position_ += w.blocks * ARCO_BLOCKSIZE;
    return true;
}

bool TreeWriter::copyRange(int in, const std::string& path, uint64_t from, uint64_t to, uint64_t dataOffset)
{
    std::unique_ptr<char[]> buffer(new char[1 << 20]);
    while (from < to) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(to - from, 1 << 20));
        ssize_t n = pread(in, buffer.get(), want, static_cast<off_t>(from));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return fail(errnoText("cannot read", path));
        }
        if (n == 0) {
            break;  // the file shrank: the rest of its payload stays zero
        }
        if (!writeAt(buffer.get(), static_cast<size_t>(n), dataOffset + from)) {
            return false;
        }
        from += static_cast<uint64_t>(n);
    }
    return true;
}

bool TreeWriter::copyData(const std::string& path, uint64_t size, uint64_t dataOffset)
{
    FdCloser in{open(path.c_str(), O_RDONLY | O_NOFOLLOW)};
    if (in.fd < 0) {
        return fail(errnoText("cannot open", path));
    }
    uint64_t at = 0;
    while (at < size) {
        off_t data = lseek(in.fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0 && errno == ENXIO) {
            break;  // only a hole is left
        }
        if (data < 0) {
            return copyRange(in.fd, path, at, size, dataOffset);  // no extent support
        }
        off_t hole = lseek(in.fd, data, SEEK_HOLE);
        uint64_t end = hole < 0 ? size : std::min<uint64_t>(size, static_cast<uint64_t>(hole));
        if (!copyRange(in.fd, path, static_cast<uint64_t>(data), end, dataOffset)) {
            return false;
        }
        at = end;
    }
    return true;
}

bool TreeWriter::addDirectory(const std::string& path, const std::string& name, const struct stat& st)
{
    if (options_.directories) {
        uint64_t dataOffset = 0;
        if (!writeHeader(entryFromStat(name, ARCO_DIRECTORY, st), &dataOffset)) {
            return false;
        }
    }
    std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
    if (!dir) {
        return fail(errnoText("cannot open directory", path));
    }
    std::vector<std::string> children;
    while (const struct dirent* d = readdir(dir.get())) {
        if (strcmp(d->d_name, ".") != 0 && strcmp(d->d_name, "..") != 0) {
            children.emplace_back(d->d_name);
        }
    }
    std::sort(children.begin(), children.end());
    for (const std::string& child : children) {
        if (!addPath(path + "/" + child, name + "/" + child)) {
            return false;
        }
    }
    return true;
}

bool TreeWriter::addRegular(const std::string& path, const std::string& name, const struct stat& st)
{
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (st.st_nlink > 1) {
        auto key = std::make_pair(st.st_dev, st.st_ino);
        auto found = firstNames_.find(key);
        if (found != firstNames_.end()) {
            // A later name of a file already written stores no payload: its
            // stated size equals its real size.
            ArcoEntry e = entryFromStat(name, ARCO_HARDLINK, st);
            e.link = found->second;
            e.realSize = size;
            uint64_t dataOffset = 0;
            return writeHeader(e, &dataOffset);
        }
        firstNames_.emplace(key, name);
    }
    ArcoEntry e = entryFromStat(name, ARCO_REGULAR, st);
    e.realSize = size;
    e.dataSize = size;
    uint64_t dataOffset = 0;
    if (!writeHeader(e, &dataOffset)) {
        return false;
    }
    result_->payloadBytes += size;
    return copyData(path, size, dataOffset);
}

bool TreeWriter::addSymlink(const std::string& path, const std::string& name, const struct stat& st)
{
    std::string target(PATH_MAX, '\0');
    ssize_t n = readlink(path.c_str(), target.data(), target.size());
    if (n < 0) {
        return fail(errnoText("cannot read link", path));
    }
    target.resize(static_cast<size_t>(n));
    ArcoEntry e = entryFromStat(name, ARCO_SYMLINK, st);
    e.link = target;
    uint64_t dataOffset = 0;
    return writeHeader(e, &dataOffset);
}

bool TreeWriter::addPath(const std::string& path, const std::string& name)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return fail(errnoText("cannot stat", path));
    }
    if (S_ISDIR(st.st_mode)) {
        return addDirectory(path, name, st);
    }
    if (S_ISREG(st.st_mode)) {
        return addRegular(path, name, st);
    }
    if (S_ISLNK(st.st_mode)) {
        return addSymlink(path, name, st);
    }
    fprintf(stderr, "mkbackup: skipping %s: not a file, link or directory\n", path.c_str());
    return true;
}

bool TreeWriter::addSource(const std::string& source)
{
    std::error_code ec;
    std::string absolute = std::filesystem::absolute(source, ec).lexically_normal().string();
    if (ec) {
        return fail("cannot resolve " + source + ": " + ec.message());
    }
    while (absolute.size() > 1 && absolute.back() == '/') {
        absolute.pop_back();
    }
    return addPath(absolute, options_.namePrefix.empty() ? absolute : options_.namePrefix);
}

bool TreeWriter::addSynthetic(const SyntheticFile& file)
{
    struct stat st {};
    st.st_mode = S_IFREG | 0644;
    st.st_mtime = time(nullptr);
    ArcoEntry e = entryFromStat(file.name, ARCO_REGULAR, st);
    e.realSize = file.size;
    e.dataSize = file.size;
    uint64_t dataOffset = 0;
    result_->payloadBytes += file.size;
    return writeHeader(e, &dataOffset);  // the payload is a hole: all zeros
}

bool TreeWriter::finish()
{
    arco_header sentinel;
    arco_make_sentinel(sentinel);
    if (!writeAt(sentinel.b, sizeof sentinel.b, position_)) {
        return false;
    }
    position_ += ARCO_BLOCKSIZE;
    result_->archiveBytes = position_;
    if (ftruncate(out_, static_cast<off_t>(position_)) != 0 || fsync(out_) != 0) {
        return fail(std::string("cannot finish the backup file: ") + strerror(errno));
    }
    return true;
}

} // namespace

int writeTreeBackup(const std::string& path, const TreeWriterOptions& options, TreeWriteResult* result,
                    std::string* error)
{
    FdCloser out{open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0660)};
    if (out.fd < 0) {
        *error = errnoText("cannot create", path);
        return -1;
    }
    *result = TreeWriteResult{};
    TreeWriter writer(out.fd, options, result, error);
    bool ok = true;
    for (const std::string& source : options.sources) {
        ok = ok && writer.addSource(source);
    }
    for (const SyntheticFile& file : options.synthetic) {
        ok = ok && writer.addSynthetic(file);
    }
    ok = ok && writer.finish();
    if (!ok) {
        unlink(path.c_str());
        return -1;
    }
    return 0;
}
