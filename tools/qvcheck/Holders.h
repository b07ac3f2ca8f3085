// The handle kinds qvcheck holds: the product's own holders.
#pragma once

#include "common/Holders.h"

namespace qvcheck {

using qv::UniqueCryptHash;
using qv::UniqueCryptKey;
using qv::UniqueCryptProv;
using qv::UniqueEventSource;
using qv::UniqueFile;
using qv::UniqueInternet;
using qv::UniqueKernelHandle;
using UniqueRegKey = qv::UniqueKey;

}  // namespace qvcheck
