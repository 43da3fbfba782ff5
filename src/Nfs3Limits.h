// Transfer sizes that FSINFO announces and the data procedures keep to.
#pragma once

#include <cstdint>

constexpr uint32_t NFS3_RTMAX = 65536;            // bytes of one READ
constexpr uint32_t NFS3_WTMAX = 16384;            // bytes of one WRITE; kept: a quarter of READ's
constexpr uint32_t NFS3_TRANSFER_MULTIPLE = 512;  // bytes
constexpr uint32_t NFS3_DTPREF = 8192;            // bytes of one directory listing
