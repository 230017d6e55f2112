// <C2.h>: status codes and units of Codec 2.0.
#pragma once

#include <cerrno>
#include <cstdint>

// Errno numbers of the same meaning.
enum c2_status_t : int32_t {
    C2_OK = 0,
    C2_BAD_STATE = EPERM,
    C2_NOT_FOUND = ENOENT,
    C2_CANCELED = EINTR,
    C2_BAD_INDEX = ENXIO,
    C2_BLOCKING = EWOULDBLOCK,
    C2_NO_MEMORY = ENOMEM,
    C2_REFUSED = EACCES,
    C2_CORRUPTED = EFAULT,
    C2_DUPLICATE = EEXIST,
    C2_NO_INIT = ENODEV,
    C2_BAD_VALUE = EINVAL,
    C2_OMITTED = ENOSYS,
    C2_CANNOT_DO = EOPNOTSUPP,
    C2_TIMED_OUT = ETIMEDOUT,
};

typedef int64_t c2_nsecs_t;
