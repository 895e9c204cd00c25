// CountingHooks: allocator hooks for the JSON reader that record every call and can refuse memory.
#pragma once

#include "common/sj.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace support {

/// Outlives every parser that uses its funcs().
class CountingHooks {
public:
    CountingHooks() = default;
    CountingHooks(const CountingHooks&) = delete;
    CountingHooks& operator=(const CountingHooks&) = delete;
    ~CountingHooks()
    {
        for (const auto& block : live_)
            std::free(block.first);
    }

    /// Hooks whose context is this object.
    sj_util_funcs funcs()
    {
        sj_util_funcs result;
        result.context = this;
        result.malloc = &CountingHooks::hookMalloc;
        result.realloc = &CountingHooks::hookRealloc;
        result.free = &CountingHooks::hookFree;
        return result;
    }

    /// From now on `count` requests are granted and all later ones refused.
    void grantOnly(size_t count)
    {
        limited_ = true;
        granted_ = count;
    }

    std::vector<size_t> mallocSizes;  ///< Requests of the malloc hook, in order.
    std::vector<size_t> reallocSizes; ///< Requests of the realloc hook, in order.
    size_t freeCalls = 0;             ///< Calls of the free hook with a block.
    size_t strangers = 0;             ///< Blocks given back that these hooks never handed out.

    size_t liveBlocks() const { return live_.size(); }
    size_t requestedBytes() const { return requested_; } ///< Sum over all requests.
    size_t peakBytes() const { return peak_; }           ///< Most bytes held at one time.

private:
    static void* hookMalloc(void* context, size_t size)
    {
        auto* const self = static_cast<CountingHooks*>(context);
        self->mallocSizes.push_back(size);
        return self->resize(nullptr, size);
    }

    static void* hookRealloc(void* context, void* block, size_t size)
    {
        auto* const self = static_cast<CountingHooks*>(context);
        self->reallocSizes.push_back(size);
        return self->resize(block, size);
    }

    static void hookFree(void* context, void* block)
    {
        if (block == nullptr)
            return;
        auto* const self = static_cast<CountingHooks*>(context);
        ++self->freeCalls;
        self->forget(block);
        std::free(block);
    }

    /// Always moves a block, and fills what is new, so that nobody can rely on old addresses or on zeros.
    void* resize(void* block, size_t size)
    {
        requested_ += size;
        if (limited_) {
            if (granted_ == 0)
                return nullptr;
            --granted_;
        }
        void* const fresh = std::malloc(size == 0 ? 1 : size);
        if (fresh == nullptr)
            return nullptr;
        std::memset(fresh, 0xA5, size);
        if (block != nullptr) {
            const auto old = live_.find(block);
            if (old != live_.end())
                std::memcpy(fresh, block, old->second < size ? old->second : size);
            forget(block);
            std::free(block);
        }
        live_[fresh] = size;
        held_ += size;
        peak_ = held_ > peak_ ? held_ : peak_;
        return fresh;
    }

    void forget(void* block)
    {
        const auto found = live_.find(block);
        if (found == live_.end()) {
            ++strangers;
            return;
        }
        held_ -= found->second;
        live_.erase(found);
    }

    std::map<void*, size_t> live_;
    size_t held_ = 0;
    size_t peak_ = 0;
    size_t requested_ = 0;
    bool limited_ = false;
    size_t granted_ = 0;
};

} // namespace support
