#pragma once
// Known values and their registers in each of the four device byte orders ("endianness" × "byte_order"),
// shared by the decode, encode and round-trip tests. Registers are listed as they travel on the wire, first
// register first; each register is high byte first.

#include <cstdint>
#include <vector>

#include "codec/var_type.h"

namespace golden {

struct ByteOrder {
    const char* name;
    bool littleEndian;  // "endianness" 1
    bool byteSwapped;   // "byte_order" 1
};

enum OrderIndex { kBigHigh = 0, kBigLow = 1, kLittleHigh = 2, kLittleLow = 3, kOrderCount = 4 };

inline const ByteOrder kByteOrders[kOrderCount] = {
    {"Big/High", false, false},
    {"Big/Low", false, true},
    {"Little/High", true, false},
    {"Little/Low", true, true},
};

// One value per type, chosen with distinct bytes so that every byte order gives different registers. The
// registers are written out by hand from the byte-order table, one column per order.
struct Vector {
    const char* name;
    VarType type;
    const char* text;  // the value text, as decoding produces it with precision 4
    std::vector<uint16_t> registers[kOrderCount];
};

inline const std::vector<Vector>& vectors() {
    static const std::vector<Vector> kVectors = {
        // -12345 = 0xCFC7
        {"INT16 -12345", INT16, "-12345", {{0xCFC7}, {0xC7CF}, {0xC7CF}, {0xCFC7}}},
        // 4660 = 0x1234
        {"UINT16 4660", UINT16, "4660", {{0x1234}, {0x3412}, {0x3412}, {0x1234}}},
        // -123456789 = 0xF8A432EB
        {"INT32 -123456789",
         INT32,
         "-123456789",
         {{0xF8A4, 0x32EB}, {0xA4F8, 0xEB32}, {0xEB32, 0xA4F8}, {0x32EB, 0xF8A4}}},
        // 305419896 = 0x12345678
        {"UINT32 305419896",
         UINT32,
         "305419896",
         {{0x1234, 0x5678}, {0x3412, 0x7856}, {0x7856, 0x3412}, {0x5678, 0x1234}}},
        // 123456.0f = 0x47F12000
        {"FLOAT 123456",
         FLOAT,
         "123456",
         {{0x47F1, 0x2000}, {0xF147, 0x0020}, {0x0020, 0xF147}, {0x2000, 0x47F1}}},
        // 1.0f = 0x3F800000
        {"FLOAT 1", FLOAT, "1", {{0x3F80, 0x0000}, {0x803F, 0x0000}, {0x0000, 0x803F}, {0x0000, 0x3F80}}},
        // 1234.5678 = 0x40934A456D5CFAAD
        {"DOUBLE 1234.5678",
         DOUBLE,
         "1234.5678",
         {{0x4093, 0x4A45, 0x6D5C, 0xFAAD},
          {0x9340, 0x454A, 0x5C6D, 0xADFA},
          {0xADFA, 0x5C6D, 0x454A, 0x9340},
          {0xFAAD, 0x6D5C, 0x4A45, 0x4093}}},
        // 64-bit vectors stay within the 53 bits a double holds exactly, since a write goes through a double.
        // -81985529216486880 = 0xFEDCBA9876543220
        {"INT64 -81985529216486880",
         INT64,
         "-81985529216486880",
         {{0xFEDC, 0xBA98, 0x7654, 0x3220},
          {0xDCFE, 0x98BA, 0x5476, 0x2032},
          {0x2032, 0x5476, 0x98BA, 0xDCFE},
          {0x3220, 0x7654, 0xBA98, 0xFEDC}}},
        // 81985529216486880 = 0x0123456789ABCDE0
        {"UINT64 81985529216486880",
         UINT64,
         "81985529216486880",
         {{0x0123, 0x4567, 0x89AB, 0xCDE0},
          {0x2301, 0x6745, 0xAB89, 0xE0CD},
          {0xE0CD, 0xAB89, 0x6745, 0x2301},
          {0xCDE0, 0x89AB, 0x4567, 0x0123}}},
    };
    return kVectors;
}

// The registers of a value in the given order, worked out from its Big/High registers with the byte table:
// Big/Low swaps the two bytes of each register, Little/High reverses all bytes, Little/Low reverses the
// register order.
inline std::vector<uint16_t> inOrder(const std::vector<uint16_t>& bigHigh, OrderIndex order) {
    std::vector<uint8_t> bytes;
    for (uint16_t word : bigHigh) {
        bytes.push_back(static_cast<uint8_t>(word >> 8));
        bytes.push_back(static_cast<uint8_t>(word & 0xFF));
    }
    std::vector<uint8_t> out(bytes.size());
    const size_t n = bytes.size();
    for (size_t i = 0; i < n; ++i) {
        switch (order) {
            case kBigHigh:
                out[i] = bytes[i];
                break;
            case kBigLow:
                out[i] = bytes[i ^ 1];
                break;
            case kLittleHigh:
                out[i] = bytes[n - 1 - i];
                break;
            case kLittleLow:
                out[i] = bytes[(n - 2 - (i & ~size_t{1})) + (i & 1)];
                break;
            case kOrderCount:
                break;
        }
    }
    std::vector<uint16_t> words;
    for (size_t i = 0; i + 1 < n; i += 2) {
        words.push_back(static_cast<uint16_t>((out[i] << 8) | out[i + 1]));
    }
    return words;
}

// The largest double written out in full, as fixed notation renders it.
#define GOLDEN_DOUBLE_MAX_DIGITS                                                                             \
    "179769313486231570814527423731704356798070567525844996598917476803157260780028538760589558632766878171" \
    "540458953514382464234321326889464182768467546703537516986049910576551282076245490090389328944075868508" \
    "455133942304583236903222948165808559332123348274797826204144723168738177180919299881250404026184124858" \
    "368"
inline const char* const kDoubleMaxText = GOLDEN_DOUBLE_MAX_DIGITS;
inline const char* const kDoubleLowestText = "-" GOLDEN_DOUBLE_MAX_DIGITS;
#undef GOLDEN_DOUBLE_MAX_DIGITS

// Limits and special values per type, given by their Big/High registers; the other orders come from inOrder.
struct Extreme {
    const char* name;
    VarType type;
    const char* text;  // decoded with precision 4
    std::vector<uint16_t> bigHigh;
};

inline const std::vector<Extreme>& extremes() {
    static const std::vector<Extreme> kExtremes = {
        {"INT16 min", INT16, "-32768", {0x8000}},
        {"INT16 max", INT16, "32767", {0x7FFF}},
        {"INT16 -1", INT16, "-1", {0xFFFF}},
        {"INT16 0", INT16, "0", {0x0000}},
        {"UINT16 max", UINT16, "65535", {0xFFFF}},
        {"UINT16 0", UINT16, "0", {0x0000}},
        {"INT32 min", INT32, "-2147483648", {0x8000, 0x0000}},
        {"INT32 max", INT32, "2147483647", {0x7FFF, 0xFFFF}},
        {"INT32 -1", INT32, "-1", {0xFFFF, 0xFFFF}},
        {"INT32 0", INT32, "0", {0x0000, 0x0000}},
        {"UINT32 max", UINT32, "4294967295", {0xFFFF, 0xFFFF}},
        {"UINT32 0", UINT32, "0", {0x0000, 0x0000}},
        {"INT64 min", INT64, "-9223372036854775808", {0x8000, 0x0000, 0x0000, 0x0000}},
        {"INT64 max", INT64, "9223372036854775807", {0x7FFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"INT64 -1", INT64, "-1", {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"INT64 0", INT64, "0", {0x0000, 0x0000, 0x0000, 0x0000}},
        {"UINT64 max", UINT64, "18446744073709551615", {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"UINT64 0", UINT64, "0", {0x0000, 0x0000, 0x0000, 0x0000}},
        {"FLOAT 0", FLOAT, "0", {0x0000, 0x0000}},
        {"FLOAT -1", FLOAT, "-1", {0xBF80, 0x0000}},
        {"FLOAT -2.5", FLOAT, "-2.5000", {0xC020, 0x0000}},
        {"FLOAT max", FLOAT, "340282346638528859811704183484516925440", {0x7F7F, 0xFFFF}},
        {"FLOAT lowest", FLOAT, "-340282346638528859811704183484516925440", {0xFF7F, 0xFFFF}},
        {"FLOAT nan", FLOAT, "nan", {0x7FC0, 0x0000}},
        {"FLOAT inf", FLOAT, "inf", {0x7F80, 0x0000}},
        {"FLOAT -inf", FLOAT, "-inf", {0xFF80, 0x0000}},
        {"DOUBLE 0", DOUBLE, "0", {0x0000, 0x0000, 0x0000, 0x0000}},
        {"DOUBLE -1", DOUBLE, "-1", {0xBFF0, 0x0000, 0x0000, 0x0000}},
        {"DOUBLE -2.5", DOUBLE, "-2.5000", {0xC004, 0x0000, 0x0000, 0x0000}},
        {"DOUBLE max", DOUBLE, kDoubleMaxText, {0x7FEF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"DOUBLE lowest", DOUBLE, kDoubleLowestText, {0xFFEF, 0xFFFF, 0xFFFF, 0xFFFF}},
        {"DOUBLE nan", DOUBLE, "nan", {0x7FF8, 0x0000, 0x0000, 0x0000}},
        {"DOUBLE inf", DOUBLE, "inf", {0x7FF0, 0x0000, 0x0000, 0x0000}},
        {"DOUBLE -inf", DOUBLE, "-inf", {0xFFF0, 0x0000, 0x0000, 0x0000}},
    };
    return kExtremes;
}

}  // namespace golden
