#include "base/values/Sha1.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>

namespace Morva {

namespace {

// A look-up by name takes locks and a search through the providers: once is enough.
EVP_MD const* sha1() {
    static EVP_MD* const digest = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    return digest;
}

// A wrong digest would join contents that differ, so there is no going on without a right one.
void require(bool succeeded) {
    if (!succeeded) {
        std::fputs("The crypto library can't compute SHA-1\n", stderr);
        std::abort();
    }
}

} // namespace

void Sha1::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Sha1::Sha1() : context_(EVP_MD_CTX_new()), extent_(static_cast<void*>(digest_.data()), digestSize) {
    require(context_ != nullptr);
    reset();
}

Sha1::~Sha1() = default;

void Sha1::addData(void const* bytes, std::uint32_t count) {
    if (!ended_ && count > 0)
        require(EVP_DigestUpdate(context_.get(), bytes, count) == 1);
}

Extent const& Sha1::result() {
    if (!ended_) {
        unsigned length = 0;
        require(EVP_DigestFinal_ex(context_.get(), digest_.data(), &length) == 1 &&
                length == digestSize);
        ended_ = true;
    }
    return extent_;
}

void Sha1::reset() {
    require(EVP_DigestInit_ex2(context_.get(), sha1(), nullptr) == 1);
    ended_ = false;
}

} // namespace Morva
