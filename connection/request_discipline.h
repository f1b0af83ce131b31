#pragma once
// How a failed request is judged: whether the connection it went over can still be trusted, and whether the
// request is worth sending again. `code` is what a Connection call returned in its error out-parameter: an
// errno value, or a libmodbus code (MODBUS_ENOBASE and up) for exceptions and protocol errors.

#include <modbus.h>

#include <cerrno>

namespace request_discipline {

// The socket itself is gone: nothing more can be sent or received on it.
inline bool isBrokenConnection(int code) {
    return code == EBADF || code == EPIPE || code == ECONNABORTED || code == ECONNRESET || code == ENOTCONN;
}

// A reply that never came, a socket that is gone, or bytes that are no answer: whatever arrives next on this
// connection cannot be matched to a request, so the connection is closed and the next request connects anew.
inline bool isTransportFailure(int code) {
    switch (code) {
        case ECONNRESET:
        case ECONNABORTED:
        case EPIPE:
        case ENOTCONN:
        case EBADF:
        case ETIMEDOUT:
        case EINPROGRESS:
        case EMBBADDATA:
        case EMBBADEXC:
        case EMBBADCRC:
        case EMBUNKEXC:
            return true;
        default:
            return false;
    }
}

// No answer in time.
inline bool isTimeout(int code) {
    return code == ETIMEDOUT || code == EINPROGRESS;
}

// The device answered with a Modbus exception: it is there, the connection is fine.
inline bool isExceptionAnswer(int code) {
    return code > MODBUS_ENOBASE && code < MODBUS_ENOBASE + MODBUS_EXCEPTION_MAX;
}

// A time-out or a busy device (exception 5, acknowledge, or 6, busy) may succeed when asked again; any other
// answer would only be repeated.
inline bool isRetryable(int code) {
    return isTimeout(code) || code == EMBXACK || code == EMBXSBUSY;
}

// An error that describes the device as a whole rather than one request's addresses: the transport errors,
// a failing or busy device and a gateway that cannot reach it. Item-level exceptions (illegal address, value,
// ...) and protocol errors do not mark a device faulty.
inline bool isDeviceLevel(int code) {
    return code < MODBUS_ENOBASE || code == EMBXSFAIL || code == EMBXSBUSY || code == EMBXGPATH ||
           code == EMBXGTAR;
}

}  // namespace request_discipline
