#pragma once
// What moves the bytes of a connection, whatever frames them: a plain TCP socket or a TLS session over one.
// Every wait is bounded by a deadline, and errors come back as errno values in *err.

#include <chrono>

class ByteStream {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    virtual ~ByteStream() = default;
    // All `length` bytes, or -1.
    virtual int sendAll(const unsigned char* data, int length, Deadline deadline, int* err) = 0;
    // At least one byte and at most `capacity`, or -1: ETIMEDOUT when nothing came in time, ECONNRESET when
    // the peer closed.
    virtual int receiveSome(unsigned char* data, int capacity, Deadline deadline, int* err) = 0;
    // Reads and drops whatever has already arrived, without waiting; how many bytes that was.
    virtual int discardWaiting() = 0;
    // The connection goes idle until the next batch: buffers worth their memory only while bytes move go.
    virtual void releaseBuffers() {}
};
