#pragma once

#include "mtd/MtdDevice.h"

#include <mtd/mtd-user.h>

constexpr int kNotSupported = 524; ///< the kernel's ENOTSUPP, which user space has no name for

/// Data and OOB bytes of one read or write of the MTD layer. Null pointers leave their area out.
struct MtdDevice::Operation {
    std::uint8_t mode = MTD_OPS_PLACE_OOB;
    const std::uint8_t *data = nullptr; ///< to write
    std::uint8_t *out = nullptr;        ///< where data is read to
    std::uint64_t length = 0;
    const std::uint8_t *oob = nullptr; ///< to write
    std::uint8_t *oobOut = nullptr;    ///< where OOB bytes are read to
    std::uint64_t oobLength = 0;
    std::uint32_t oobOffset = 0;
};
