// A context is two ciphers of OpenSSL's, keyed once, one for each direction: a cipher that was
// keyed for encryption cannot be turned round without its key. To initialise one again with nothing
// new restarts it from the IV that it was keyed with, which is where every message begins.
//
// Messages go through EVP_Cipher(), which takes whole blocks as they are, and the padding is ours.
// The calls that pad by themselves hold blocks back, which doubles the time of a short message, and
// leave an error in the caller's queue where the padding is wrong, which here is no error.

#include <ztlib/sutils/aes256.h>

#include <ztlib/base/memory.h>
#include <ztlib/base/text.h>
#include <ztlib/sutils/openssl_owned.hpp>

#include <openssl/evp.h>

#include <cstddef>
#include <cstring>

namespace {

constexpr size_t kBlock = 16;

struct Context {
    EVP_CIPHER_CTX* encryption;
    EVP_CIPHER_CTX* decryption;
};

const unsigned char* unsigned_of(const void* bytes) {
    return static_cast<const unsigned char*>(bytes);
}

size_t whole_blocks(size_t length) { return length - length % kBlock; }

bool is_message(const void* bytes, const int* length) {
    return length && *length >= 0 && *length <= AES256_LENGTH_MAX && (bytes || *length == 0);
}

// Begins a message at the context's IV.
bool restart(EVP_CIPHER_CTX* cipher) {
    return EVP_CipherInit_ex(cipher, nullptr, nullptr, nullptr, nullptr, -1) == 1;
}

// Goes on with whole blocks, from `in` to `out`, which may be the same.
bool apply(EVP_CIPHER_CTX* cipher, unsigned char* out, const unsigned char* in, size_t length) {
    return length == 0 || EVP_Cipher(cipher, out, in, static_cast<unsigned>(length)) > 0;
}

// Fills the block up to its end with the number of bytes that this takes.
void pad(unsigned char* block, size_t used) {
    memset(block + used, static_cast<int>(kBlock - used), kBlock - used);
}

// How much of a message's last block is padding; the whole block where the padding is wrong.
size_t padding_of(const unsigned char* block) {
    const char last = static_cast<char>(block[kBlock - 1]);
    const auto padding = static_cast<unsigned>(block[kBlock - 1]);
    if (padding == 0 || padding > kBlock) return kBlock;
    const zt::Sixteen characters = zt::load_sixteen(reinterpret_cast<const char*>(block));
    const unsigned others = ~zt::bits_of(characters == last) & ((1u << kBlock) - 1);
    return others >> (kBlock - padding) == 0 ? padding : kBlock;
}

}  // namespace

extern "C" void* aes256_ctx_init(const void* iv, const void* key) {
    if (!iv || !key) return nullptr;
    const zt::ErrorMark mark;
    std::unique_ptr<Context, zt::ReleaseWith<aes256_ctx_free>> context(
        zt::allocate_zeroed<Context>());
    if (!context) return nullptr;
    const EVP_CIPHER* const aes = EVP_aes_256_cbc();
    const unsigned char* const k = unsigned_of(key);
    const unsigned char* const v = unsigned_of(iv);
    context->encryption = EVP_CIPHER_CTX_new();
    context->decryption = EVP_CIPHER_CTX_new();
    if (!context->encryption || !context->decryption ||
        EVP_EncryptInit_ex(context->encryption, aes, nullptr, k, v) != 1 ||
        EVP_DecryptInit_ex(context->decryption, aes, nullptr, k, v) != 1)
        return nullptr;
    return context.release();
}

extern "C" void aes256_ctx_free(void* ctx) {
    if (!ctx) return;
    const auto* context = static_cast<Context*>(ctx);
    EVP_CIPHER_CTX_free(context->encryption);  // cleanses the key
    EVP_CIPHER_CTX_free(context->decryption);
    free(ctx);
}

extern "C" unsigned char* aes256_encrypt(void* ctx, const void* plaintext, int* length) {
    if (!ctx || !is_message(plaintext, length)) return nullptr;
    const size_t size = static_cast<size_t>(*length);
    const size_t whole = whole_blocks(size);
    zt::Owned<unsigned char> out(zt::allocate<unsigned char>(size + kBlock + 1));
    if (!out) return nullptr;

    unsigned char* const last = out.get() + whole;
    if (size > whole) memcpy(last, unsigned_of(plaintext) + whole, size - whole);
    pad(last, size - whole);

    EVP_CIPHER_CTX* const cipher = static_cast<Context*>(ctx)->encryption;
    if (!restart(cipher) || !apply(cipher, out.get(), unsigned_of(plaintext), whole) ||
        !apply(cipher, last, last, kBlock))
        return nullptr;
    *length = static_cast<int>(whole + kBlock);
    return out.release();
}

extern "C" unsigned char* aes256_decrypt(void* ctx, const void* ciphertext, int* length) {
    if (!ctx || !is_message(ciphertext, length)) return nullptr;
    const size_t size = static_cast<size_t>(*length);
    size_t decrypted = whole_blocks(size);
    zt::Owned<unsigned char> out(zt::allocate<unsigned char>(size + kBlock + 1));
    if (!out) return nullptr;

    EVP_CIPHER_CTX* const cipher = static_cast<Context*>(ctx)->decryption;
    if (!restart(cipher) || !apply(cipher, out.get(), unsigned_of(ciphertext), decrypted))
        return nullptr;
    if (decrypted == size && size > 0) decrypted -= padding_of(out.get() + size - kBlock);
    out.get()[decrypted] = 0;
    *length = static_cast<int>(decrypted);
    return out.release();
}
