// mkbackup without a database: backups written from generated and real
// trees are walked entry by entry, every payload matching its source byte
// for byte; damaged archives are refused without reading past their end.
#include "archive/arco.h"
#include "archive/arco_walk.h"

#include "harness/appliance_root.h"
#include "harness/log_capture.h"
#include "harness/mkbackup.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using ferrytest::runMkbackup;

namespace {

struct Fd {
    int fd;
    explicit Fd(const std::string& path, int flags = O_RDONLY) : fd(open(path.c_str(), flags)) {}
    ~Fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

std::string readRange(int fd, uint64_t offset, size_t n)
{
    std::string data(n, '\0');
    size_t done = 0;
    while (done < n) {
        ssize_t got = pread(fd, data.data() + done, n - done, static_cast<off_t>(offset + done));
        if (got <= 0)
            break;
        done += static_cast<size_t>(got);
    }
    data.resize(done);
    return data;
}

uint64_t collectEntry(const ArcoWalkEntry& w, void* context)
{
    static_cast<std::vector<ArcoWalkEntry>*>(context)->push_back(w);
    return 0;
}

std::vector<ArcoWalkEntry> walkAll(const std::string& path, long* result = nullptr)
{
    std::vector<ArcoWalkEntry> entries;
    Fd f(path);
    long n = arco_walk(f.fd, collectEntry, &entries);
    if (result)
        *result = n;
    else
        EXPECT_GE(n, 0) << path;
    return entries;
}

std::string randomBytes(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s)
        c = static_cast<char>(gen());
    return s;
}

// Compares the payload of a regular entry with its source file. Large
// (sparse) sources are compared over their data extents; what lies between
// them must read as zeros wherever the archive holds data.
void expectSamePayload(int archive, const ArcoWalkEntry& w, const std::string& source)
{
    Fd in(source);
    ASSERT_GE(in.fd, 0) << source;
    struct stat st {};
    fstat(in.fd, &st);
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    ASSERT_EQ(w.entry.dataSize, size) << source;
    if (size <= (64u << 20)) {
        EXPECT_TRUE(readRange(archive, w.dataOffset, size) == readRange(in.fd, 0, size)) << source;
        return;
    }
    uint64_t at = 0;
    while (at < size) {
        off_t data = lseek(in.fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0)
            break;
        off_t hole = lseek(in.fd, data, SEEK_HOLE);
        uint64_t end = std::min<uint64_t>(size, static_cast<uint64_t>(hole));
        for (uint64_t p = static_cast<uint64_t>(data); p < end; p += 1 << 20) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(end - p, 1 << 20));
            ASSERT_TRUE(readRange(archive, w.dataOffset + p, n) == readRange(in.fd, p, n)) << source << " at " << p;
        }
        at = end;
    }
}

// A tree with every kind of entry the tool writes.
struct Tree {
    std::string dir;
    std::string longDir;     // a directory whose path is over 400 characters
    std::string sparse;      // 9 GiB with data in three places
};

Tree makeTree(const std::string& dir)
{
    Tree t{dir, "", dir + "/sparse.img"};
    ferrytest::makeDirs(dir + "/sub/deeper");
    for (size_t size : {0, 1, 511, 512, 513, 4096, 100000}) {
        ferrytest::writeFile(dir + "/file_" + std::to_string(size), randomBytes(size, static_cast<unsigned>(size)));
    }
    ferrytest::writeFile(dir + "/sub/deeper/text.txt", "hello from deeper\n");
    ferrytest::writeFile(dir + "/sub/empty", "");
    symlink("file_512", (dir + "/link_short").c_str());
    symlink(std::string(300, 'T').c_str(), (dir + "/link_long_target").c_str());
    link((dir + "/file_4096").c_str(), (dir + "/sub/hard_4096").c_str());
    link((dir + "/file_4096").c_str(), (dir + "/zz_hard_4096").c_str());

    // Names of 100 to 400 characters, and one beyond through a deep path.
    std::string name150 = std::string(150 - (dir.size() + 1), 'm');
    ferrytest::writeFile(dir + "/" + name150, "one hundred and fifty\n");
    std::string p = dir + "/long";
    for (int i = 0; i < 4; ++i)
        p += "/" + std::string(120, static_cast<char>('a' + i));
    ferrytest::makeDirs(p);
    t.longDir = p;
    ferrytest::writeFile(p + "/payload.bin", randomBytes(3000, 7));
    symlink("payload.bin", (p + "/link_in_long_dir").c_str());

    // Sparse: 9 GiB with data at the start, across 4 GiB, and at the end.
    Fd f(t.sparse, O_WRONLY | O_CREAT);
    EXPECT_EQ(ftruncate(f.fd, 9LL << 30), 0);
    std::string a = randomBytes(5000, 1), b = randomBytes(70000, 2), c = randomBytes(100, 3);
    EXPECT_EQ(pwrite(f.fd, a.data(), a.size(), 0), static_cast<ssize_t>(a.size()));
    EXPECT_EQ(pwrite(f.fd, b.data(), b.size(), (4LL << 30) - 30000), static_cast<ssize_t>(b.size()));
    EXPECT_EQ(pwrite(f.fd, c.data(), c.size(), (9LL << 30) - 100), static_cast<ssize_t>(c.size()));
    return t;
}

// Checks every entry of `archive` against the file system under the names'
// source paths (names are absolute paths here).
void expectArchiveMatchesTree(const std::string& archive, const std::vector<ArcoWalkEntry>& entries)
{
    Fd a(archive);
    std::map<std::pair<dev_t, ino_t>, std::string> firstNames;
    for (const ArcoWalkEntry& w : entries) {
        const ArcoEntry& e = w.entry;
        SCOPED_TRACE(e.name);
        struct stat st {};
        ASSERT_EQ(lstat(e.name.c_str(), &st), 0);
        EXPECT_EQ(e.mode, static_cast<uint32_t>(st.st_mode));
        EXPECT_EQ(e.mtime, st.st_mtime);
        EXPECT_EQ(e.uid, st.st_uid);
        switch (e.linkflag) {
        case ARCO_DIRECTORY:
            EXPECT_TRUE(S_ISDIR(st.st_mode));
            EXPECT_EQ(w.layout.payloadBlocks, 0u);
            break;
        case ARCO_SYMLINK: {
            ASSERT_TRUE(S_ISLNK(st.st_mode));
            char target[4096] = {};
            ASSERT_GT(readlink(e.name.c_str(), target, sizeof target - 1), 0);
            EXPECT_EQ(e.link, target);
            EXPECT_EQ(w.layout.payloadBlocks, 0u);
            break;
        }
        case ARCO_HARDLINK: {
            auto first = firstNames.find({st.st_dev, st.st_ino});
            ASSERT_NE(first, firstNames.end()) << "a hard link follows its first name";
            EXPECT_EQ(e.link, first->second);
            EXPECT_EQ(e.realSize, static_cast<uint64_t>(st.st_size));
            EXPECT_EQ(w.layout.payloadBlocks, 0u) << "real size equals size: no payload";
            break;
        }
        case ARCO_REGULAR:
            ASSERT_TRUE(S_ISREG(st.st_mode));
            firstNames.emplace(std::make_pair(st.st_dev, st.st_ino), e.name);
            EXPECT_EQ(e.realSize, static_cast<uint64_t>(st.st_size));
            expectSamePayload(a.fd, w, e.name);
            break;
        default:
            ADD_FAILURE() << "unexpected linkflag " << e.linkflag;
        }
    }
}

std::vector<std::string> allPaths(const std::string& dir)
{
    std::vector<std::string> paths{dir};
    for (auto it = fs::recursive_directory_iterator(dir); it != fs::recursive_directory_iterator(); ++it)
        paths.push_back(it->path().string());
    return paths;
}

} // namespace

TEST(Mkbackup, GeneratedTreeWalksBackEntryByEntryWithEveryPayloadTheSame)
{
    ferrytest::ApplianceRoot root;
    Tree tree = makeTree(root.path("/src"));
    auto made = runMkbackup({"--dir", root.path("/backups"), "-b", "12", tree.dir, "--big", "/vm/huge.vmdk:20G"});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    EXPECT_EQ(made.backupNo, 12);
    EXPECT_EQ(made.path, root.path("/backups/backup_12"));

    long count = 0;
    std::vector<ArcoWalkEntry> entries = walkAll(made.path, &count);
    ASSERT_EQ(static_cast<uint64_t>(count), made.entries);
    ASSERT_FALSE(entries.empty());
    ArcoWalkEntry big = entries.back();
    entries.pop_back();
    expectArchiveMatchesTree(made.path, entries);

    // Everything of the tree is there, once.
    std::vector<std::string> paths = allPaths(tree.dir);
    EXPECT_EQ(entries.size(), paths.size());
    std::map<std::string, int> seen;
    for (const auto& w : entries)
        seen[w.entry.name]++;
    for (const auto& p : paths)
        EXPECT_EQ(seen[p], 1) << p;

    // The long names really went through each form.
    bool over100 = false, over400 = false;
    for (const auto& w : entries) {
        over100 = over100 || (w.entry.name.size() > 100 && w.layout.extBlocks == 0);
        over400 = over400 || (w.entry.name.size() > 400 && w.layout.extBlocks > 0);
    }
    EXPECT_TRUE(over100);
    EXPECT_TRUE(over400);

    // The synthetic file: big-size form, a hole of zeros, sentinel after it.
    EXPECT_EQ(big.entry.name, "/vm/huge.vmdk");
    EXPECT_EQ(big.entry.dataSize, 20ULL << 30);
    Fd a(made.path);
    arco_header h;
    ASSERT_EQ(pread(a.fd, h.b, 512, static_cast<off_t>(big.headerOffset)), 512);
    EXPECT_EQ(h.b[ARCO_SIZE.offset], '#');
    EXPECT_EQ(readRange(a.fd, big.dataOffset + (7ULL << 30), 4096), std::string(4096, '\0'));
    std::string end = readRange(a.fd, big.dataOffset + (20ULL << 30), 512);
    ASSERT_EQ(end.size(), 512u);
    EXPECT_TRUE(arco_is_end(end.data()));
    EXPECT_EQ(made.bytes, big.dataOffset + (20ULL << 30) + 512);

    // Sparse in, sparse out: far less is allocated than the 29 GiB it spans.
    struct stat st {};
    ASSERT_EQ(stat(made.path.c_str(), &st), 0);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, 64ULL << 20);
}

TEST(Mkbackup, RealDirectoryMatchesByteForByte)
{
    const std::string doc = "/usr/share/doc";
    if (!fs::is_directory(doc))
        GTEST_SKIP() << doc << " is not there";
    ferrytest::ApplianceRoot root;
    auto made = runMkbackup({"--dir", root.path("/backups"), "-b", "3", doc});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    std::vector<ArcoWalkEntry> entries = walkAll(made.path);
    expectArchiveMatchesTree(made.path, entries);
    EXPECT_EQ(entries.size(), allPaths(doc).size());
}

TEST(Mkbackup, PrefixNamesAndListing)
{
    ferrytest::ApplianceRoot root;
    ferrytest::makeDirs(root.path("/src/a"));
    ferrytest::writeFile(root.path("/src/a/f"), "data");
    symlink("f", root.path("/src/a/l").c_str());
    auto made = runMkbackup({"--dir", root.path("/backups"), "--prefix", "C:/client", "--no-dirs", root.path("/src")});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    EXPECT_EQ(made.backupNo, 1) << "the default number without a database";
    auto entries = walkAll(made.path);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].entry.name, "C:/client/a/f");
    EXPECT_EQ(entries[1].entry.name, "C:/client/a/l");
    EXPECT_EQ(entries[1].entry.link, "f");

    auto list = runMkbackup({"--list", made.path});
    ASSERT_EQ(list.exitStatus, 0) << list.err;
    EXPECT_EQ(list.out, "0 0 4 C:/client/a/f\n2 1024 0 C:/client/a/l -> f\nentries=2 end=1536\n");
}

TEST(Mkbackup, NeverOverwritesAndExplainsItsUsage)
{
    ferrytest::ApplianceRoot root;
    ferrytest::writeFile(root.path("/backups/backup_5"), "precious");
    ferrytest::makeDirs(root.path("/src"));
    auto made = runMkbackup({"--dir", root.path("/backups"), "-b", "5", root.path("/src")});
    EXPECT_EQ(made.exitStatus, 1);
    EXPECT_NE(made.err.find("cannot create"), std::string::npos) << made.err;
    EXPECT_EQ(ferrytest::readFile(root.path("/backups/backup_5")), "precious");

    auto help = runMkbackup({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    for (const char* word : {"--dir", "--db", "--big", "--type", "--instance", "--start-time", "backup_<N>"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;

    EXPECT_EQ(runMkbackup({}).exitStatus, 2);
    EXPECT_EQ(runMkbackup({root.path("/src")}).exitStatus, 2) << "neither --dir nor --db";
    EXPECT_EQ(runMkbackup({"--dir", "/x", "--big", "nosize", root.path("/src")}).exitStatus, 2);
    EXPECT_EQ(runMkbackup({"--dir", "/x", "-b", "12x", root.path("/src")}).exitStatus, 2);
    auto missing = runMkbackup({"--dir", root.path("/backups"), "-b", "6", root.path("/nothing")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_FALSE(ferrytest::fileExists(root.path("/backups/backup_6"))) << "a failed write leaves no file";
}

namespace {

// Writes `bytes` of `source` into a new file and walks it.
long walkCopy(const std::string& source, size_t bytes, const std::string& copy, int* error)
{
    std::string data = ferrytest::readFile(source);
    data.resize(std::min(bytes, data.size()));
    unlink(copy.c_str());
    ferrytest::writeFile(copy, data);
    Fd f(copy);
    errno = 0;
    long n = arco_walk(f.fd, nullptr, nullptr);
    *error = errno;
    return n;
}

} // namespace

TEST(MkbackupDamage, TruncatedArchivesAreRefusedAtEveryCut)
{
    ferrytest::ApplianceRoot root;
    ferrytest::makeDirs(root.path("/src"));
    ferrytest::writeFile(root.path("/src/a"), randomBytes(3000, 5));
    std::string longName = root.path("/src/") + std::string(200, 'L');
    ferrytest::makeDirs(longName);
    ferrytest::writeFile(longName + "/" + std::string(200, 'F'), randomBytes(700, 6));
    auto made = runMkbackup({"--dir", root.path("/backups"), root.path("/src")});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    const size_t total = made.bytes;
    ferrytest::LogCapture quiet(0);
    int error = 0;
    EXPECT_EQ(walkCopy(made.path, total, root.path("/tmp/copy"), &error), 4);
    // Every cut: inside headers, extended blocks, payloads, before the sentinel.
    for (size_t cut = 0; cut < total; cut += 97) {
        EXPECT_EQ(walkCopy(made.path, cut, root.path("/tmp/copy"), &error), -1) << cut;
        EXPECT_EQ(error, EBADMSG) << cut;
    }
    EXPECT_EQ(walkCopy(made.path, total - 1, root.path("/tmp/copy"), &error), -1);
}

TEST(MkbackupDamage, GarbageFieldsAndShortExtendedSizesAreRefused)
{
    ferrytest::ApplianceRoot root;
    ferrytest::makeDirs(root.path("/src"));
    ferrytest::writeFile(root.path("/src/") + std::string(200, 'x'), randomBytes(5000, 9));
    auto made = runMkbackup({"--dir", root.path("/backups"), "--no-dirs", "--prefix", "/p" + std::string(450, 'q'),
                             root.path("/src")});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    std::string original = ferrytest::readFile(made.path);
    arco_header h;
    memcpy(h.b, original.data(), 512);
    ASSERT_TRUE(arco_is_extended(h));
    ferrytest::LogCapture log(0);
    int error = 0;
    auto walkPatched = [&](const arco_header& patched) {
        std::string data = original;
        memcpy(data.data(), patched.b, 512);
        ferrytest::writeFile(root.path("/tmp/patched"), data);
        Fd f(root.path("/tmp/patched"));
        errno = 0;
        long n = arco_walk(f.fd, nullptr, nullptr);
        error = errno;
        return n;
    };

    arco_header small = h;
    arco_set_size(small, 512);  // the name needs two blocks
    arco_set_checksum(small);
    EXPECT_EQ(walkPatched(small), -1);
    EXPECT_EQ(error, EBADMSG);
    EXPECT_EQ(ferrytest::countOf(log.text(), "name size greater than file size"), 1u);

    arco_header garbage = h;
    memcpy(garbage.b + ARCO_SIZE.offset, "garbage!", 8);  // reads as 0
    arco_set_checksum(garbage);
    EXPECT_EQ(walkPatched(garbage), -1);
    EXPECT_EQ(error, EBADMSG);

    arco_header unsummed = h;
    unsummed.b[ARCO_MODE.offset] ^= 1;  // checksum no longer agrees
    EXPECT_EQ(walkPatched(unsummed), -1);
    EXPECT_EQ(error, EBADMSG);
    EXPECT_GE(ferrytest::countOf(log.text(), "Bad tar header"), 1u);
}
