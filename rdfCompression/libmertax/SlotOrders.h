// Byte shuffle orders for eight slots, shared by the kernel sets whose byte shuffles yield 0 for
// an index of 0x80 (SSSE3's PSHUFB, NEON's TBL).
#pragma once

#include <array>
#include <cstdint>

// Shuffle orders for eight slot bits m; 0x80 makes the shuffle yield 0.
// Spread: byte j is the rank of bit j among the set bits when it is set, else 0x80.
// Gather: byte k is the position of the k-th set bit, for k below their count, else 0x80.
constexpr std::array<uint64_t, 256> MakeOrders(bool spread)
{
    std::array<uint64_t, 256> orders{};
    for (unsigned m = 0; m < 256; ++m) {
        unsigned rank = 0;
        for (unsigned j = 0; j < 8; ++j) {
            const bool set = (m >> j) & 1;
            if (spread)
                orders[m] |= uint64_t(set ? rank : 0x80) << (8 * j);
            else if (set)
                orders[m] |= uint64_t(j) << (8 * rank);
            rank += set;
        }
        if (!spread)
            for (unsigned k = rank; k < 8; ++k)
                orders[m] |= uint64_t(0x80) << (8 * k);
    }
    return orders;
}

inline constexpr std::array<uint64_t, 256> SPREAD_ORDERS = MakeOrders(true);
inline constexpr std::array<uint64_t, 256> GATHER_ORDERS = MakeOrders(false);
inline constexpr uint64_t EIGHT = 0x0808080808080808ull;

// The gather orders for the high eight slots of sixteen: every index 8 higher (0x80 stays above
// 0x7F, so the shuffle still yields 0 there).
constexpr std::array<uint64_t, 256> MakeHighOrders()
{
    std::array<uint64_t, 256> orders = MakeOrders(false);
    for (uint64_t& order : orders)
        order += EIGHT;
    return orders;
}

inline constexpr std::array<uint64_t, 256> GATHER_ORDERS_HIGH = MakeHighOrders();
