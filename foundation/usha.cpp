// usha: the SHA front end over libcrypto's digest calls (initialise, update,
// final), selected by the algorithm value kept in the context.
#include "foundation/usha.h"

#include "foundation/logger.h"

#include <openssl/evp.h>

namespace {

struct ShaInfo {
    const EVP_MD* (*digest)();
    int hashSize;
    int blockSize;
};

// Index is the algorithm value; anything above 3 counts as SHA-512.
const ShaInfo kShaTable[] = {
    {EVP_sha1, 20, 64},
    {EVP_sha224, 28, 64},
    {EVP_sha256, 32, 64},
    {EVP_sha384, 48, 128},
    {EVP_sha512, 64, 128},
};

const ShaInfo& shaInfo(int whichSha)
{
    if (whichSha < 0) {
        return kShaTable[0];
    }
    return kShaTable[whichSha > 3 ? 4 : whichSha];
}

} // namespace

int USHAReset(USHAContext* context, int whichSha)
{
    if (context == nullptr) {
        return USHA_NULL;
    }
    context->whichSha = whichSha;
    if (whichSha < USHA_SHA1 || whichSha > USHA_SHA512) {
        // Drop any earlier digest so a following USHAResult cannot hand out
        // a value of the previous algorithm.
        USHARelease(context);
        return USHA_BAD_PARAM;
    }
    if (context->md == nullptr) {
        context->md = EVP_MD_CTX_new();
    }
    if (context->md == nullptr ||
        EVP_DigestInit_ex(context->md, shaInfo(whichSha).digest(), nullptr) != 1) {
        log_printf(0, "%s:%d: USHAReset: EVP_DigestInit_ex call returned an error.", __FILE__, __LINE__);
        return USHA_NULL;
    }
    return USHA_SUCCESS;
}

int USHAInput(USHAContext* context, const uint8_t* bytes, size_t length)
{
    if (context == nullptr || context->md == nullptr) {
        return USHA_NULL;
    }
    if (EVP_DigestUpdate(context->md, bytes, length) != 1) {
        log_printf(0, "%s:%d: USHAInput: EVP_DigestUpdate call returned an error.", __FILE__, __LINE__);
        return USHA_NULL;
    }
    return USHA_SUCCESS;
}

int USHAResult(USHAContext* context, uint8_t* digest)
{
    if (context == nullptr || context->md == nullptr || digest == nullptr) {
        return USHA_NULL;
    }
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context->md, digest, &length) != 1) {
        log_printf(0, "%s:%d: USHAResult: EVP_DigestFinal_ex call returned an error.", __FILE__, __LINE__);
        return USHA_NULL;
    }
    return USHA_SUCCESS;
}

int USHAFinalBits(USHAContext* context, uint8_t, unsigned int)
{
    return context == nullptr ? USHA_NULL : USHA_BAD_PARAM;
}

void USHARelease(USHAContext* context)
{
    if (context != nullptr && context->md != nullptr) {
        EVP_MD_CTX_free(context->md);
        context->md = nullptr;
    }
}

int USHABlockSize(int whichSha)
{
    return shaInfo(whichSha).blockSize;
}

int USHAHashSize(int whichSha)
{
    return shaInfo(whichSha).hashSize;
}

int USHAHashSizeBits(int whichSha)
{
    return shaInfo(whichSha).hashSize * 8;
}
