#pragma once
// Tells a failed exchange whose connection is gone (the next request needs a new one) from an answer the
// device gave (a Modbus exception, a malformed reply), after which the connection is still usable.

#include <cerrno>

// `code` is what a Connection call returned in its error out-parameter: an errno value, or a libmodbus code
// (MODBUS_ENOBASE and up) for exceptions and protocol errors.
inline bool isConnectionFailure(int code) {
    switch (code) {
        case ECONNRESET:
        case ECONNABORTED:
        case EPIPE:
        case ENOTCONN:
        case EBADF:
        case ETIMEDOUT:
            return true;
        default:
            return false;
    }
}
