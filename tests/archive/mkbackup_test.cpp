// mkbackup without a database: a backup written from a generated tree with
// every special case is walked entry by entry, every payload matching its
// source byte for byte; damaged archives are refused without reading past
// their end; the tool never overwrites and answers bad usage with exit 2.
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
#include <tuple>
#include <unistd.h>
#include <vector>

using ferrytest::runMkbackup;

namespace {

struct Fd {
    int fd;
    explicit Fd(const std::string& path, int flags = O_RDONLY) : fd(open(path.c_str(), flags, 0644)) {}
    ~Fd() { close(fd); }
};

std::string readRange(int fd, uint64_t offset, size_t n)
{
    std::string data(n, '\0');
    ssize_t got = pread(fd, data.data(), n, static_cast<off_t>(offset));
    data.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return data;
}

std::string randomBytes(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s)
        c = static_cast<char>(gen());
    return s;
}

// Walks the archive at `path`: its entries, the walk's result and errno.
struct Walk {
    std::vector<ArcoWalkEntry> entries;
    long result = 0;
    int error = 0;
};
Walk walk(const std::string& path)
{
    Walk w;
    Fd f(path);
    errno = 0;
    auto collect = [](const ArcoWalkEntry& e, void* c) -> uint64_t {
        static_cast<std::vector<ArcoWalkEntry>*>(c)->push_back(e);
        return 0;
    };
    w.result = arco_walk(f.fd, collect, &w.entries);
    w.error = errno;
    return w;
}

// A payload compared with its source over the source's data extents, so a
// sparse source costs only what it holds (the whole file when it has no holes).
void expectSamePayload(int archive, const ArcoWalkEntry& w, const std::string& source)
{
    Fd in(source);
    const uint64_t size = w.entry.dataSize;
    for (off_t at = 0; at < static_cast<off_t>(size);) {
        off_t data = lseek(in.fd, at, SEEK_DATA);
        if (data < 0)
            break;
        off_t hole = std::min<off_t>(lseek(in.fd, data, SEEK_HOLE), static_cast<off_t>(size));
        for (off_t p = data; p < hole; p += 1 << 20) {
            size_t n = static_cast<size_t>(std::min<off_t>(hole - p, 1 << 20));
            ASSERT_TRUE(readRange(archive, w.dataOffset + p, n) == readRange(in.fd, p, n)) << source << " at " << p;
        }
        at = hole;
    }
}

// Every kind of entry the tool writes: files around the block size, an empty
// one, symbolic links, two hard links, names of 150 and over 400 characters,
// and 9 GiB sparse with data at the start, across 4 GiB and at the end.
std::string makeTree(const ferrytest::ApplianceRoot& root)
{
    const std::string dir = root.path("/src");
    ferrytest::makeDirs(dir + "/sub/deeper");
    for (size_t size : {0, 1, 511, 512, 513, 4096, 100000})
        ferrytest::writeFile(dir + "/file_" + std::to_string(size), randomBytes(size, static_cast<unsigned>(size)));
    ferrytest::writeFile(dir + "/sub/deeper/text.txt", "hello from deeper\n");
    symlink("file_512", (dir + "/link_short").c_str());
    symlink(std::string(300, 'T').c_str(), (dir + "/link_long_target").c_str());
    link((dir + "/file_4096").c_str(), (dir + "/sub/hard_4096").c_str());
    link((dir + "/file_4096").c_str(), (dir + "/zz_hard_4096").c_str());
    ferrytest::writeFile(dir + "/" + std::string(150 - (dir.size() + 1), 'm'), "one hundred and fifty\n");
    std::string deep = dir + "/long";
    for (char c : {'a', 'b', 'c', 'd'})
        deep += "/" + std::string(120, c);
    ferrytest::makeDirs(deep);
    ferrytest::writeFile(deep + "/payload.bin", randomBytes(3000, 7));
    symlink("payload.bin", (deep + "/link_in_long_dir").c_str());

    Fd f(dir + "/sparse.img", O_WRONLY | O_CREAT);
    EXPECT_EQ(ftruncate(f.fd, 9LL << 30), 0);
    for (auto [offset, seed, size] :
         {std::tuple{0LL, 1u, 5000}, {(4LL << 30) - 30000, 2u, 70000}, {(9LL << 30) - 100, 3u, 100}}) {
        std::string bytes = randomBytes(static_cast<size_t>(size), seed);
        EXPECT_EQ(pwrite(f.fd, bytes.data(), bytes.size(), offset), size);
    }
    return dir;
}

} // namespace

TEST(Mkbackup, GeneratedTreeWalksBackEntryByEntryWithEveryPayloadTheSame)
{
    ferrytest::ApplianceRoot root;
    const std::string dir = makeTree(root);
    auto made = runMkbackup({"--dir", root.path("/backups"), "-b", "12", dir, "--big", "/vm/huge.vmdk:20G"});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    EXPECT_EQ(made.path, root.path("/backups/backup_12"));
    std::vector<ArcoWalkEntry> entries = walk(made.path).entries;
    ASSERT_EQ(entries.size(), made.entries);
    const ArcoWalkEntry big = entries.back();
    entries.pop_back();

    // Every path of the tree once, each entry as the file system has it.
    std::map<std::string, int> seen{{dir, 0}};
    for (const auto& it : std::filesystem::recursive_directory_iterator(dir))
        seen[it.path().string()] = 0;
    Fd a(made.path);
    std::map<ino_t, std::string> firstNames;
    for (const ArcoWalkEntry& w : entries) {
        const ArcoEntry& e = w.entry;
        SCOPED_TRACE(e.name);
        struct stat st {};
        ASSERT_EQ(lstat(e.name.c_str(), &st), 0);
        EXPECT_EQ(++seen[e.name], 1);
        EXPECT_EQ(std::tie(e.mode, e.mtime, e.uid), std::make_tuple(uint32_t{st.st_mode}, st.st_mtime, st.st_uid));
        EXPECT_EQ(w.layout.payloadBlocks == 0, e.linkflag != ARCO_REGULAR || e.dataSize == 0);
        if (e.linkflag == ARCO_DIRECTORY) {
            EXPECT_TRUE(S_ISDIR(st.st_mode));
        } else if (e.linkflag == ARCO_SYMLINK) {
            char target[4096] = {};
            ASSERT_GT(readlink(e.name.c_str(), target, sizeof target - 1), 0);
            EXPECT_EQ(e.link, target);
        } else if (e.linkflag == ARCO_HARDLINK) {
            EXPECT_EQ(e.link, firstNames[st.st_ino]) << "a hard link follows its first name";
            EXPECT_EQ(e.realSize, static_cast<uint64_t>(st.st_size));
        } else {
            ASSERT_EQ(e.linkflag, ARCO_REGULAR);
            firstNames.emplace(st.st_ino, e.name);
            EXPECT_EQ(e.realSize, static_cast<uint64_t>(st.st_size));
            EXPECT_EQ(e.dataSize, static_cast<uint64_t>(st.st_size));
            expectSamePayload(a.fd, w, e.name);
        }
    }
    for (const auto& [path, times] : seen)
        EXPECT_EQ(times, 1) << path;
    EXPECT_EQ(seen.size(), entries.size());

    // The synthetic file: big-size form, a hole of zeros, the sentinel after it.
    EXPECT_EQ(big.entry.name, "/vm/huge.vmdk");
    EXPECT_EQ(big.entry.dataSize, 20ULL << 30);
    EXPECT_EQ(readRange(a.fd, big.headerOffset + ARCO_SIZE.offset, 1), "#");
    EXPECT_EQ(readRange(a.fd, big.dataOffset + (7ULL << 30), 4096), std::string(4096, '\0'));
    const std::string end = readRange(a.fd, big.dataOffset + (20ULL << 30), 512);
    ASSERT_EQ(end.size(), 512u);
    EXPECT_TRUE(arco_is_end(end.data()));
    EXPECT_EQ(made.bytes, big.dataOffset + (20ULL << 30) + 512);
    struct stat st {};
    ASSERT_EQ(fstat(a.fd, &st), 0);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, 64ULL << 20) << "sparse in, sparse out";
}

TEST(Mkbackup, NeverOverwritesAndRefusesBadUsage)
{
    ferrytest::ApplianceRoot root;
    ferrytest::writeFile(root.path("/backups/backup_5"), "precious");
    ferrytest::makeDirs(root.path("/src"));
    const std::string dir = root.path("/backups"), src = root.path("/src");
    const struct { std::vector<std::string> args; int exitStatus; } cases[] = {
        {{"--dir", dir, "-b", "5", src}, 1},                  // the file exists
        {{"--dir", dir, "-b", "6", root.path("/nothing")}, 1}, // no source: no file left behind
        {{}, 2}, {{src}, 2} /* neither --dir nor --db */, {{"--dir", dir, "--big", "nosize", src}, 2},
        {{"--dir", dir, "-b", "12x", src}, 2}};
    for (const auto& c : cases)
        EXPECT_EQ(runMkbackup(c.args).exitStatus, c.exitStatus) << (c.args.empty() ? "" : c.args.back());
    auto help = runMkbackup({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_EQ(help.out.rfind("Usage: mkbackup [options] SOURCE...\n", 0), 0u) << help.out;
    EXPECT_EQ(ferrytest::readFile(root.path("/backups/backup_5")), "precious");
    EXPECT_FALSE(ferrytest::fileExists(root.path("/backups/backup_6")));
}

TEST(MkbackupDamage, DamagedArchivesAreRefusedWithoutReadingPastTheirEnd)
{
    ferrytest::ApplianceRoot root;
    ferrytest::writeFile(root.path("/src/") + std::string(200, 'x'), randomBytes(5000, 9));
    const std::string prefix = "/p" + std::string(450, 'q'), copy = root.path("/tmp/copy");
    auto made = runMkbackup({"--dir", root.path("/backups"), "--no-dirs", "--prefix", prefix, root.path("/src")});
    ASSERT_EQ(made.exitStatus, 0) << made.err;
    ASSERT_EQ(walk(made.path).entries.at(0).entry.name, prefix + "/" + std::string(200, 'x'));
    const std::string whole = ferrytest::readFile(made.path);
    auto walkBytes = [&copy](const std::string& data) {
        ferrytest::writeFile(copy, data);
        return walk(copy);
    };
    ferrytest::LogCapture log(0);

    // Cut inside the header, the extended blocks, the payload and the sentinel.
    std::vector<size_t> cuts{whole.size() - 1};
    for (size_t cut = 0; cut < whole.size(); cut += 97)
        cuts.push_back(cut);
    for (size_t cut : cuts) {
        Walk w = walkBytes(whole.substr(0, cut));
        EXPECT_EQ(std::tie(w.result, w.error), std::make_tuple(-1L, EBADMSG)) << cut;
    }

    const char* tooSmall = "name size greater than file size";  // the name needs two blocks
    const struct { const char* line; bool resum; void (*spoil)(arco_header&); } cases[] = {
        {tooSmall, true, [](arco_header& x) { arco_set_size(x, 512); }},
        {tooSmall, true, [](arco_header& x) { memcpy(x.b + ARCO_SIZE.offset, "garbage!", 8); }},  // reads as 0
        {"Bad tar header", false, [](arco_header& x) { x.b[ARCO_MODE.offset] ^= 1; }}};  // checksum disagrees
    for (const auto& c : cases) {
        arco_header h;
        memcpy(h.b, whole.data(), 512);
        ASSERT_TRUE(arco_is_extended(h));
        c.spoil(h);
        if (c.resum)
            arco_set_checksum(h);
        const size_t before = ferrytest::countOf(log.text(), c.line);
        Walk w = walkBytes(std::string(reinterpret_cast<char*>(h.b), 512) + whole.substr(512));
        EXPECT_EQ(std::tie(w.result, w.error), std::make_tuple(-1L, EBADMSG)) << c.line;
        EXPECT_EQ(ferrytest::countOf(log.text(), c.line), before + 1) << c.line;
    }
}
