#pragma once
// The requests of one poll or write batch of one device, over its (possibly shared) connection: connects when
// the connection is not open, addresses the device's unit, sends a request again after a time-out or a busy
// answer as the device's "retries" allow, closes the connection after a transport failure so that the next
// request connects anew, and counts what happened into the device's health.

#include <QString>
#include <functional>

#include "plugin/modbus.h"

class RequestRunner {
public:
    // A Connection call that returns a negative number with its error code in *err when it fails.
    using Request = std::function<int(Connection&, int*)>;

    RequestRunner(Modbus& plugin, Modbus::TcpDeviceConnection& endpoint, Modbus::DeviceState& state,
                  DeviceInstancePlugin& device, DeviceOptions const& options);

    // Opens the connection when it is not open and addresses the device's unit. False with the connect
    // error code in *error.
    bool ensureConnected(int* error);

    // Runs `request` with the device's retries; its result, with the last error in *err when it failed.
    // `firstAttempt` 1 for a request that was already sent once (in a pipelined batch).
    int run(Request const& request, int* err, int firstAttempt = 0);

    // Sends `reads` with up to `window` in flight, counting each read that was sent and each answer. Reads
    // that were answered with an error a retry cannot mend are counted failed here.
    Connection::Pipeline runPipelined(std::vector<Connection::PipelinedRead>& reads, int window);

    // Whether a read answered while in flight is done with: answered with anything but busy, or busy with no
    // retries allowed. The others are sent again one at a time.
    bool settledInFlight(Connection::PipelinedRead const& read) const;

    Connection& connection() { return endpoint.connection; }

    // After the first time-out of the batch, fail the remaining requests unsent with it: for a device that
    // did not answer its last poll at all, one time-out per poll is enough to know it still does not.
    void giveUpAfterTimeout(bool giveUp) { stopAtTimeout = giveUp; }

    // What this batch met: requests that failed after their retries (and the first device-level error among
    // them), and whether every request that was sent timed out.
    int sentRequests() const { return sent; }
    int failedRequests() const { return failed; }
    bool allTimedOut() const { return sent > 0 && timedOut == sent; }
    int deviceError() const { return firstDeviceError; }
    bool connectFailed() const { return connectFailure; }
    int lastConnectError() const { return connectError; }

private:
    // The batch cannot use the connection: `reason` into *error and the counts; false.
    bool refuseConnect(int reason, int* error);
    // Counts a new connection's TLS handshake into the device's health, and warns (once a day) of a
    // certificate about to expire.
    void noteTlsHandshake(Connection const& connection);
    // Whether a request that failed with `error` leaves the connection unusable.
    bool closesConnection(int error) const;

    Modbus& plugin;
    Modbus::TcpDeviceConnection& endpoint;
    Modbus::DeviceState& state;
    DeviceInstancePlugin& device;
    DeviceOptions const& options;
    int sent = 0;
    int failed = 0;
    int timedOut = 0;
    int firstDeviceError = 0;
    bool connectFailure = false;
    int connectError = 0;
    bool stopAtTimeout = false;
    int lastTimeoutError = 0;
};
