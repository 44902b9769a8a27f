#pragma once

#include "base/values/Extent.h"

#include <array>
#include <cstdint>
#include <memory>

struct evp_md_ctx_st;

namespace Morva {

/// SHA-1 (FIPS 180-4). An object is one computation and can be used again after `reset()`, which
/// saves setting up a new one. Not thread-safe.
class Sha1 {
public:
    static constexpr std::uint32_t digestSize = 20;

    Sha1();
    ~Sha1();
    Sha1(Sha1 const&) = delete;
    Sha1& operator=(Sha1 const&) = delete;

    void addData(void const* bytes, std::uint32_t count);
    /// All `size` bytes of the range.
    void addData(Extent const& range) { addData(range.data, range.size); }
    /// Ends the computation: the 20 bytes of the digest, valid as long as this object and until
    /// `reset()`. Data added after it is ignored, and a second call gives the same.
    [[nodiscard]] Extent const& result();
    /// Begins a new computation.
    void reset();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };

    std::unique_ptr<evp_md_ctx_st, Free> context_;
    std::array<std::uint8_t, digestSize> digest_{};
    Extent extent_;
    bool ended_ = false;
};

} // namespace Morva
