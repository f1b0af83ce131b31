// MBAP and RTU frame parsing and the function-code check over arbitrary bytes. An accepted frame must be the
// frame the matching wrap function builds from the parsed fields.

#include <QByteArray>
#include <cstddef>
#include <cstdint>

#include "discovery/frames.h"
#include "discovery/identification.h"
#include "discovery/rtu_answer.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr int kMbapHeaderSize = 7;
constexpr int kMbapPrefixSize = 6;  // the header up to the length field; the length counts what follows
constexpr int kRtuCrcSize = 2;

int mbapLengthField(const QByteArray& frame) {
    return (static_cast<quint8>(frame.at(4)) << 8) | static_cast<quint8>(frame.at(5));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray frame(reinterpret_cast<const char*>(data), static_cast<int>(size));

    quint16 transactionId = 0;
    unsigned char unitId = 0;
    QByteArray pdu;
    if (ModbusDiscovery::parseMbap(frame, &transactionId, &unitId, &pdu)) {
        FUZZ_CHECK(frame.size() >= kMbapHeaderSize + 1);
        FUZZ_CHECK(!pdu.isEmpty());
        const int framed = kMbapPrefixSize + mbapLengthField(frame);
        FUZZ_CHECK(ModbusDiscovery::wrapMbap(transactionId, unitId, pdu) == frame.left(framed));
    }
    // Without out-parameters the answer must not change.
    const bool bare = ModbusDiscovery::parseMbap(frame, nullptr, nullptr, nullptr);
    if (!bare) FUZZ_CHECK(!ModbusDiscovery::parseMbap(frame, &transactionId, &unitId, &pdu));

    if (ModbusDiscovery::parseRtu(frame, &unitId, &pdu)) {
        FUZZ_CHECK(pdu.size() == frame.size() - 1 - kRtuCrcSize);
        FUZZ_CHECK(ModbusDiscovery::wrapRtu(unitId, pdu) == frame);
    }
    ModbusDiscovery::parseRtu(frame, nullptr, nullptr);

    // An answer found in a stream is a whole frame of that stream, of the unit and function asked for (the
    // first two bytes pick them).
    if (frame.size() > 2) {
        const quint8 unit = static_cast<quint8>(frame.at(0));
        const quint8 function = static_cast<quint8>(frame.at(1));
        const QByteArray stream = frame.mid(2);
        QByteArray answer;
        if (ModbusDiscovery::findRtuAnswer(stream, unit, function, &answer)) {
            FUZZ_CHECK(stream.contains(ModbusDiscovery::wrapRtu(unit, answer)));
            const quint8 answered = static_cast<quint8>(answer.at(0));
            FUZZ_CHECK(answered == function || answered == (function | 0x80));
        }
    }

    // The first byte picks the function code the rest is checked against.
    if (!frame.isEmpty()) {
        const QByteArray rest = frame.mid(1);
        const bool matches = ModbusDiscovery::isModbusPduFor(rest, static_cast<unsigned char>(frame.at(0)));
        if (matches) FUZZ_CHECK(!rest.isEmpty());
    }
    return 0;
}
