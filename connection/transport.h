#pragma once
// How requests travel on a device's TCP connection. The numbers are the stored texts of the device setting
// "transport".

enum class Transport {
    ModbusTcp = 0,   // MBAP header with transaction ids
    RtuOverTcp = 1,  // RTU frames (unit id, PDU, CRC-16) through a transparent serial-to-Ethernet converter
    ModbusTcpSecurity = 2,  // MBAP frames inside TLS 1.2 or 1.3, both sides known by their certificates
};
