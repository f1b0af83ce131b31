#include "plugin/request_runner.h"

#include <chrono>
#include <climits>

#include "connection/request_discipline.h"

namespace {
constexpr int kSharedTimeoutsBeforeClose = 2;
// Certificates are warned of this long before they expire, once a day.
constexpr int kExpiryWarningDays = 30;
constexpr qint64 kExpiryWarningEveryMs = 24LL * 60 * 60 * 1000;
}  // namespace

RequestRunner::RequestRunner(Modbus& plugin, Modbus::TcpDeviceConnection& endpoint,
                             Modbus::DeviceState& state, DeviceInstancePlugin& device,
                             DeviceOptions const& options)
    : plugin(plugin), endpoint(endpoint), state(state), device(device), options(options) {}

bool RequestRunner::ensureConnected(int* error) {
    Connection& connection = endpoint.connection;
    if (!connection.isConnected()) {
        connection = plugin.makeConnection(device, error);
        if (!connection.isConnected()) {
            connection.setConnected(false);
            return refuseConnect(*error, error);
        }
        ++endpoint.generation;
        endpoint.consecutiveTimeouts = 0;
        noteTlsHandshake(connection);
    }
    // A shared connection carries the settings of whichever device uses it now (a new one was made with this
    // device's unit). A unit id libmodbus cannot address fails the device as it does on a connection of its
    // own; the connection, which serves its neighbours, stays as it is and this device does not count as one.
    const int unit = deviceUnitId(device.settings);
    if (connection.slave() != unit && !connection.setSlave(unit)) return refuseConnect(EINVAL, error);
    endpoint.noteUse(device.id, Backoff::clockMs());
    if (state.seenGeneration != endpoint.generation) {
        state.seenGeneration = endpoint.generation;
        ++state.health.connects;
    }
    connection.setRequestPause(options.requestPauseMs);
    connection.setResponseTimeoutMs(options.responseTimeoutMs);
    return true;
}

void RequestRunner::noteTlsHandshake(Connection const& connection) {
    TlsHandshake const* handshake = connection.tlsHandshake();
    if (!handshake) return;
    DeviceHealth& health = state.health;
    ++health.tlsHandshakes;
    if (handshake->resumed) ++health.tlsResumed;
    health.tlsCertificateDaysLeft = handshake->deviceCertificateDaysLeft;
    health.tlsClientCertificateDaysLeft = connection.tlsClientCertificateDaysLeft();
    const qint64 now = Backoff::clockMs();
    if (health.tlsExpiryWarnedMs != LLONG_MIN && now - health.tlsExpiryWarnedMs < kExpiryWarningEveryMs)
        return;
    bool warned = false;
    auto warn = [&](int daysLeft, QString const& whose) {
        if (daysLeft == INT_MIN || daysLeft > kExpiryWarningDays) return;
        warned = true;
        plugin.writeLogWarning(
            daysLeft < 0 ? QStringLiteral("%1: %2 has expired").arg(device.name, whose)
                         : QStringLiteral("%1: %2 expires in %3 days").arg(device.name, whose).arg(daysLeft));
    };
    warn(health.tlsCertificateDaysLeft, QStringLiteral("the device's TLS certificate"));
    warn(health.tlsClientCertificateDaysLeft,
         QStringLiteral("this gateway's TLS certificate (tls_certificate)"));
    if (warned) health.tlsExpiryWarnedMs = now;
}

bool RequestRunner::refuseConnect(int reason, int* error) {
    ++state.health.connectFailures;
    connectFailure = true;
    connectError = reason;
    *error = reason;
    return false;
}

int RequestRunner::run(Request const& request, int* err, int firstAttempt) {
    if (stopAtTimeout && timedOut > 0) {
        ++failed;
        *err = lastTimeoutError;
        return -1;
    }
    int error = 0;
    for (int attempt = firstAttempt;; ++attempt) {
        // One failed attempt to connect is enough for a batch: a dead device must not cost a connect
        // time-out per request.
        if (!endpoint.connection.isConnected() && (connectFailure || !ensureConnected(&error))) {
            if (connectFailure) error = connectError;
            // The connection broke within the batch and cannot be opened again: the request fails unsent.
            ++failed;
            if (!firstDeviceError) firstDeviceError = error;
            *err = error;
            return -1;
        }
        if (attempt == firstAttempt) ++sent;
        ++state.health.requests;
        if (attempt > 0) ++state.health.retries;
        const auto started = std::chrono::steady_clock::now();
        const int result = request(endpoint.connection, &error);
        const double elapsedMs =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
        if (result >= 0) {
            endpoint.consecutiveTimeouts = 0;
            state.health.recordResponse(elapsedMs);
            return result;
        }
        if (request_discipline::isExceptionAnswer(error)) {
            endpoint.consecutiveTimeouts = 0;
            ++state.health.exceptions;
            state.health.recordResponse(elapsedMs);
        }
        if (request_discipline::isTimeout(error)) {
            ++state.health.timeouts;
            ++endpoint.consecutiveTimeouts;
        }
        if (closesConnection(error)) endpoint.connection.disconnect();
        if (!request_discipline::isRetryable(error) || attempt >= options.retries) break;
        plugin.writeLogDebug(QStringLiteral("Sending the request to %1 again after: %2")
                                 .arg(device.name, endpoint.connection.errToStr(error)));
    }
    ++failed;
    ++state.health.failedRequests;
    if (request_discipline::isTimeout(error)) {
        ++timedOut;
        lastTimeoutError = error;
    }
    if (!firstDeviceError && request_discipline::isDeviceLevel(error)) firstDeviceError = error;
    *err = error;
    return -1;
}

bool RequestRunner::closesConnection(int error) const {
    if (!request_discipline::isTransportFailure(error)) return false;
    // Over RTU the next request starts on a drained stream and finds its answer among whatever else comes, so
    // a damaged answer is no reason for a new connection; a time-out is, as on Modbus TCP.
    if (endpoint.connection.framing() == Transport::RtuOverTcp && !request_discipline::isTimeout(error) &&
        !request_discipline::isBrokenConnection(error))
        return false;
    // A time-out on a connection that other units share is most likely one dead unit behind a live gateway:
    // closing it would cost every neighbour a reconnect, and a late answer is dropped by its transaction id
    // (over RTU: by its unit, or by the wait before the same unit's next request) anyway. A second time-out
    // in a row means the gateway itself no longer answers.
    if (request_discipline::isTimeout(error) && endpoint.userCount() > 1)
        return endpoint.consecutiveTimeouts >= kSharedTimeoutsBeforeClose;
    return true;
}

bool RequestRunner::settledInFlight(Connection::PipelinedRead const& read) const {
    return read.answered && (!request_discipline::isRetryable(read.error) || options.retries == 0);
}

Connection::Pipeline RequestRunner::runPipelined(std::vector<Connection::PipelinedRead>& reads, int window) {
    const Connection::Pipeline outcome = endpoint.connection.readPipelined(reads, window);
    bool anyAnswered = false;
    bool anyTimedOut = false;
    bool outOfStep = false;
    for (Connection::PipelinedRead const& read : reads) {
        if (!read.sent) continue;
        ++state.health.requests;
        if (read.answered) {
            anyAnswered = true;
            state.health.recordResponse(read.responseMs);
        }
        if (read.result >= 0) {
            ++sent;
            continue;
        }
        if (request_discipline::isTimeout(read.error)) {
            ++state.health.timeouts;
            anyTimedOut = true;
        }
        if (request_discipline::isExceptionAnswer(read.error)) ++state.health.exceptions;
        if (request_discipline::isTransportFailure(read.error) && !request_discipline::isTimeout(read.error))
            outOfStep = true;
        if (settledInFlight(read)) {
            ++sent;
            ++failed;
            ++state.health.failedRequests;
            if (!firstDeviceError && request_discipline::isDeviceLevel(read.error))
                firstDeviceError = read.error;
        }
    }
    // The in-flight requests count as one exchange for the gateway's time-outs in a row.
    if (anyAnswered) endpoint.consecutiveTimeouts = 0;
    if (anyTimedOut) ++endpoint.consecutiveTimeouts;
    // A bad frame or an unknown transaction id leaves the stream out of step, as on the one-at-a-time path.
    if (outcome == Connection::Pipeline::Broken || outOfStep || (anyTimedOut && closesConnection(ETIMEDOUT)))
        endpoint.connection.disconnect();
    return outcome;
}
