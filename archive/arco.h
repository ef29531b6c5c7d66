// arco: the bytes of a backup archive. The 512-byte arco header with its
// fields, the header check, long names, the big-size form, dedup reference
// text, the encryption token test, stream-type detection and file names.
//
// The on-disk layout is described in archive/README.md. Numeric header fields
// are text; binary integers elsewhere are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr size_t ARCO_BLOCKSIZE = 512;

// A field of the header: where it starts and how wide it is.
struct ArcoField {
    size_t offset;
    size_t width;
};

inline constexpr ArcoField ARCO_NAME1 = {0, 100};
inline constexpr ArcoField ARCO_MODE = {100, 8};
inline constexpr ArcoField ARCO_UID = {108, 8};
inline constexpr ArcoField ARCO_GID = {116, 8};
inline constexpr ArcoField ARCO_SIZE = {124, 12};
inline constexpr ArcoField ARCO_MTIME = {136, 12};
inline constexpr ArcoField ARCO_CHKSUM = {148, 8};
inline constexpr ArcoField ARCO_LINKFLAG = {156, 1};
inline constexpr ArcoField ARCO_LINKNAME = {157, 100};
inline constexpr ArcoField ARCO_PART_NO = {257, 4};
inline constexpr ArcoField ARCO_PART_COUNT = {261, 4};
inline constexpr ArcoField ARCO_REAL_SIZE = {265, 12};
inline constexpr ArcoField ARCO_FLAGS = {293, 8};
inline constexpr ArcoField ARCO_NAME5 = {305, 62};
inline constexpr ArcoField ARCO_NAME2 = {368, 70};
inline constexpr ArcoField ARCO_NAME3 = {159, 98};  // inside the linkname area of non-links
inline constexpr ArcoField ARCO_NAME4 = {440, 70};  // also the second piece of a link target

// Extended header fields, over the name area (byte 0 NUL, 1 'L', 2 NUL).
inline constexpr ArcoField ARCO_EXT_NAME_POS = {13, 9};
inline constexpr ArcoField ARCO_EXT_NAME_LEN = {22, 9};
inline constexpr ArcoField ARCO_EXT_LINK_POS = {31, 9};
inline constexpr ArcoField ARCO_EXT_LINK_LEN = {40, 9};

// Linkflag values this layer knows.
inline constexpr char ARCO_REGULAR = '0';
inline constexpr char ARCO_HARDLINK = '1';
inline constexpr char ARCO_SYMLINK = '2';
inline constexpr char ARCO_DIRECTORY = '5';
inline constexpr char ARCO_DEDUP = 'D';
inline constexpr char ARCO_TOKEN = 'E';
inline constexpr char FT_VDISK = 'V';

// Bit of the flags field: the linkname area of a non-link holds name text.
inline constexpr uint64_t ARCO_FLAG_NAME_IN_LINKNAME = 64;

inline constexpr size_t ARCO_MAX_REGULAR_NAME = 400;  // longest name without an extended header
inline constexpr size_t ARCO_MAX_REGULAR_LINK = 170;  // longest link name or target likewise
inline constexpr size_t ARCO_MAX_EXT_NAME = 32767;    // a reader's cap per extended name
inline constexpr uint64_t ARCO_MAX_TOKEN = 0x100000;  // token header plus body

// One header block. All bytes are zero after value-initialisation.
struct arco_header {
    unsigned char b[ARCO_BLOCKSIZE];
};

// ---- Field readers and writers -------------------------------------------

// Octal text of a field: leading blanks and tabs skipped, octal digits up to
// the first non-digit or the end of the field. Garbage reads as 0.
uint64_t arco_get_octal(const arco_header& h, ArcoField f);
// Writes `value` as zero-padded octal in width - 1 digits and a NUL. -1 when
// it does not fit (the field is left alone), else 0.
int arco_set_octal(arco_header& h, ArcoField f, uint64_t value);

// A size field (ARCO_SIZE or ARCO_REAL_SIZE): octal, or the big-size form
// when the first byte is '#'.
uint64_t arco_get_size_field(const arco_header& h, ArcoField f);
// Octal when it fits in 11 digits, else the big-size form.
void arco_set_size_field(arco_header& h, ArcoField f, uint64_t value);

// The big-size form of a 12-byte field, both directions. encode always
// writes the '#' form (7 characters when the high word is zero, else 12) and
// NUL-pads; decode reads characters after '#' until one lies outside the
// alphabet or the field ends. decode of a field without '#' gives 0.
void arco_encode_bigsize(char field[12], uint64_t value);
uint64_t arco_decode_bigsize(const char field[12]);

uint32_t arco_get_mode(const arco_header& h);
uint32_t arco_get_uid(const arco_header& h);
uint32_t arco_get_gid(const arco_header& h);
uint64_t arco_get_size(const arco_header& h);
int64_t arco_get_mtime(const arco_header& h);
uint32_t arco_get_chksum(const arco_header& h);
char arco_get_linkflag(const arco_header& h);
uint32_t arco_get_part_no(const arco_header& h);
uint32_t arco_get_part_count(const arco_header& h);
uint64_t arco_get_real_size(const arco_header& h);
uint64_t arco_get_flags(const arco_header& h);

// Setters return 0, or -1 when the value does not fit its field. None of
// them updates the checksum: call arco_set_checksum last.
int arco_set_mode(arco_header& h, uint32_t mode);
int arco_set_uid(arco_header& h, uint32_t uid);
int arco_set_gid(arco_header& h, uint32_t gid);
void arco_set_size(arco_header& h, uint64_t size);
int arco_set_mtime(arco_header& h, int64_t mtime);
void arco_set_linkflag(arco_header& h, char linkflag);
int arco_set_part_no(arco_header& h, uint32_t part);
int arco_set_part_count(arco_header& h, uint32_t count);
void arco_set_real_size(arco_header& h, uint64_t size);
int arco_set_flags(arco_header& h, uint64_t flags);

// The checksum: bytes 0-147 and 156-511 summed as signed chars, plus 256
// for the checksum field itself, kept to 16 bits.
uint32_t arco_checksum(const arco_header& h);
// Stores arco_checksum as "%07o" and a NUL.
void arco_set_checksum(arco_header& h);

// Names held in the fixed fields (no extended header). get reads the pieces
// in order 0, 368, 159, 440, 305, going on only while the previous piece is
// full; a link's name stops after 368, and its target is 157 then 440.
std::string arco_get_name(const arco_header& h);
std::string arco_get_linkname(const arco_header& h);
// Spreads a non-link's `name` (at most 400 characters) over the pieces and
// sets flag 64 when piece 159 is used. -1 when too long (logged "Name too
// long for regular header"), else 0.
int arco_set_name(arco_header& h, const std::string& name);
// Stores a link's name at 0 and 368 and its target at 157 and 440, each at
// most 170 characters. -1 when either is longer (logged "Name/link too long
// for regular header"), else 0.
int arco_set_link(arco_header& h, const std::string& name, const std::string& target);

// ---- Header check ---------------------------------------------------------

// True (1) when the 512 bytes at `block` are an arco header: checksum,
// sentinel, Gid, extended header, blank name tail, blank linkname. On
// failure *reason (when given) names the test ("checksum", "Gid",
// "Non-blank name", "Non-blank linkname") and the failure is logged at level
// 5 as "Not a header because %s%s": the first three of a run of failures and
// then every 512th, since a search through data produces long runs.
// INCL_TAR_COMPAT of [Configuration Options] in master.ini (read once per
// process) lets a blank stand in the Gid's first byte.
int is_tar(const void* block, const char** reason = nullptr);
// Forgets the cached INCL_TAR_COMPAT so the next check reads master.ini again.
void arco_reload_settings();

// A block that ends the archive: bytes 0 and 1 NUL, and it passes is_tar.
bool arco_is_end(const void* block);
// The sentinel written after the last entry: all NUL but a checksum of 256.
void arco_make_sentinel(arco_header& h);
// Byte 0 NUL, 1 'L', 2 NUL.
bool arco_is_extended(const arco_header& h);

// ---- Entries --------------------------------------------------------------

// One entry as a writer describes it and a reader gets it back.
struct ArcoEntry {
    std::string name;
    std::string link;        // target of a hard ('1') or symbolic ('2') link
    char linkflag = ARCO_REGULAR;
    uint32_t mode = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    int64_t mtime = 0;
    uint64_t realSize = 0;   // true file size
    uint64_t dataSize = 0;   // payload bytes stored after the header (and extended blocks)
    uint32_t partNo = 1;
    uint32_t partCount = 1;
};

// Where the parts of an entry lie, in 512-byte blocks after the header.
struct ArcoLayout {
    uint64_t statedSize = 0;     // the header's size field
    uint64_t extBlocks = 0;      // extended-name blocks
    uint64_t payloadBlocks = 0;  // payload blocks, padding included
    uint64_t dataSize = 0;       // payload bytes
    uint64_t nameOffset = 0;     // byte offsets in the extended area
    uint64_t nameLength = 0;
    uint64_t linkOffset = 0;
    uint64_t linkLength = 0;
};

// Block count of an entry: 1 + extBlocks + payloadBlocks.
inline uint64_t arco_entry_blocks(const ArcoLayout& l) { return 1 + l.extBlocks + l.payloadBlocks; }

// Builds the header (and extended blocks when the name is over 400
// characters, or a link's name or target is 170 or more) for `e` into `out`,
// replacing its content. The stated size is extended blocks * 512 +
// dataSize, plus realSize for a hard link. A target beginning "@@@:" loses
// those four characters. Returns the number of blocks written to `out`, or
// -1 for an empty name.
long arco_encode_entry(const ArcoEntry& e, std::string* out);

// Computes the layout of the entry whose header is `h`. -1 when the stated
// size cannot hold the extended blocks (logged "Failed reading archive: name
// size greater than file size"), or a hard link's real size exceeds it.
int arco_entry_layout(const arco_header& h, ArcoLayout* layout);

// Fills `e` from the header and, for an extended header, the extended area
// `ext` of `extLen` bytes (at least layout.extBlocks * 512; more is ignored).
// A hard link's target without '/' gets the directory of a name that has
// one, when the result stays below 32768 bytes. Names from the extended area
// are capped at 32767 bytes and end at their first NUL. -1 when the layout
// is bad or `extLen` is short (logged), else 0.
int arco_decode_entry(const arco_header& h, const void* ext, size_t extLen, ArcoEntry* e);

// ---- Deduplicated entries -------------------------------------------------

// The text at the start of a 'D' entry's payload.
struct ArcoDedupPrefix {
    std::string program;
    uint64_t headerOffset = 0;  // virtual offset of the entry's header
    int linkflag = 0;           // the entry's true linkflag
};

// "%s,0x%llX,0x%02X,dedup;" into `buf`; its length, or -1 when it does not fit.
int arco_format_dedup_prefix(char* buf, size_t size, const char* program, uint64_t headerOffset,
                             int linkflag);
// "0x%llX,0x%llX;"; its length, or -1 when it does not fit.
int arco_format_dedup_record(char* buf, size_t size, uint64_t length, uint64_t hashId);

// Parses the prefix from `len` bytes at `data`; the bytes it took, or -1
// (logged) when the text is not a prefix or is cut off.
long arco_parse_dedup_prefix(const void* data, size_t len, ArcoDedupPrefix* out);

// Walks "length,hash_id;" records (numbers as strtoull base 0 reads them)
// from `len` bytes at `data`, until a NUL or the end. The callback returns
// all ones to stop. Returns the number of records, or -1 (logged) for a bad
// or cut-off record.
using ArcoDedupRecordFn = uint64_t (*)(uint64_t length, uint64_t hashId, void* context);
long arco_walk_dedup_records(const void* data, size_t len, ArcoDedupRecordFn fn, void* context);

// ---- Encryption token and stream type -------------------------------------

// Checks whether the 512 bytes at `header` open an encryption token: an arco
// header with linkflag 'E' whose name begins (any case, 25 characters)
// "Quillmont encrypted TAR v". 1 with *total = header + body length; 0 when
// it is no token; -1 when the token is over 1 MiB (logged).
int arco_token_header(const void* header, uint64_t* total);

enum ArcoCompression { ARCO_NOT_COMPRESSED = 0, ARCO_GZIP = 2, ARCO_LZ4 = 3 };
// 2 for 1F 8B, 3 for 04 22 4D 18, else 0; 0 (logged) for a NULL buffer or
// fewer than 4 bytes.
int arco_stream_compression(const void* data, size_t len);

// ---- File names -----------------------------------------------------------

// "<dir>/backup_<N>.gz" or, without gz, "<dir>/backup_<N>".
std::string arco_backup_path(const std::string& dir, int64_t backupNo, bool gz);
// The number of a backup file name: the base name is "backup_", digits, and
// "" or ".gz". 0 with *backupNo set, or -1.
int arco_backup_no_from_name(const char* path, int64_t* backupNo);

// Finds backup `backupNo` on disk through the database: the device directory
// of its tape, then "backup_<N>.gz", then "backup_<N>". 0 with the readable
// path and the properties word; -1 with errno ENOENT (neither name can be
// read: logged with the names tried) or EBADMSG (the query failed or found
// no row: logged). Uses the process's current database connection.
int arco_find_backup(int64_t backupNo, std::string* path, uint32_t* properties);
