// usha: one front end to the SHA family. Every digest comes from libcrypto's
// EVP interface; the algorithm is chosen by a small integer (0 SHA-1 to
// 4 SHA-512) so callers can store it in records and on the wire.
#pragma once

#include <cstddef>
#include <cstdint>

typedef struct evp_md_ctx_st EVP_MD_CTX;

enum USHAAlgorithm { USHA_SHA1 = 0, USHA_SHA224 = 1, USHA_SHA256 = 2, USHA_SHA384 = 3, USHA_SHA512 = 4 };

// Result codes of the hash front end.
enum { USHA_SUCCESS = 0, USHA_NULL = 1, USHA_BAD_PARAM = 4 };

constexpr int USHAMaxHashSize = 64;

// The chosen algorithm and libcrypto's digest context. Start from a
// zero-initialised record (USHAContext ctx{}); the digest context is created
// by the first USHAReset and released by USHARelease.
struct USHAContext {
    int whichSha = 0;
    EVP_MD_CTX* md = nullptr;
};

// Starts a new digest of algorithm `whichSha` (0 to 4). Returns 0; 1 without
// a context or when libcrypto cannot start the digest (logged "USHAReset:
// EVP_DigestInit_ex call returned an error."); 4 for a value outside 0..4,
// which is still stored in the context.
int USHAReset(USHAContext* context, int whichSha);

// Feeds `length` bytes. 0, or 1 without a started digest or on failure
// (logged "USHAInput: EVP_DigestUpdate call returned an error.").
int USHAInput(USHAContext* context, const uint8_t* bytes, size_t length);

// Finishes the digest into `digest` (USHAHashSize bytes). 0, or 1 on failure
// (logged "USHAResult: EVP_DigestFinal_ex call returned an error."). The
// context must be reset before it hashes again.
int USHAResult(USHAContext* context, uint8_t* digest);

// Trailing bits are not supported: 4 with a context, 1 without.
int USHAFinalBits(USHAContext* context, uint8_t bits, unsigned int bitcount);

// Frees the libcrypto context; the record may be reset and used again.
void USHARelease(USHAContext* context);

// Sizes of an algorithm; any value above 3 counts as SHA-512.
int USHABlockSize(int whichSha);
int USHAHashSize(int whichSha);
int USHAHashSizeBits(int whichSha);
