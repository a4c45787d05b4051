// Byte-order helpers for fields that are not aligned or not part of a converted record:
// big-endian values inside TLVs, little-endian words of CLI blocks and store keys.
#pragma once
#include <stdint.h>

inline uint16_t ltr_get_be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }

inline void ltr_put_be16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}

inline uint32_t ltr_get_le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

inline void ltr_put_le32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = (uint8_t)(v >> (8 * i));
}
