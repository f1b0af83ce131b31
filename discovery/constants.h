#pragma once
// Budgets and limits of discovery and identification.

namespace ModbusDiscovery {

constexpr int kDefaultTimeoutMs = 60000;
constexpr int kDefaultTcpPort = 502;
constexpr int kDefaultSecurePort = 802;
// Values of the device setting "transport" (and of the discovery request's).
constexpr int kTransportModbusTcp = 0;
constexpr int kTransportRtuOverTcp = 1;
constexpr int kTransportModbusTcpSecurity = 2;
constexpr int kDefaultUnitId = 1;
constexpr int kTcpConnectTimeoutMs = 400;
constexpr int kTcpReadTimeoutMs = 400;
constexpr int kTcpScanConnectTimeoutMs = 80;
constexpr int kTcpScanReadTimeoutMs = 400;
constexpr int kRtuReadTimeoutMs = 200;
// A full handshake with a P-256 certificate takes a few milliseconds on a PC and tens on a small Arm gateway;
// a port that speaks no TLS stays silent or fails long before.
constexpr int kTlsScanHandshakeTimeoutMs = 1000;
constexpr int kMaxTcpScanHosts = 256;
constexpr int kMaxTcpScanPorts = 64;
constexpr int kMaxSynWorkers = 48;
constexpr int kMaxTcpUnitIds = 32;
constexpr int kMaxRtuUnitIds = 247;

// Function codes and MEI type of the requests discovery and identification send.
constexpr unsigned char kFcReadCoils = 1;
constexpr unsigned char kFcReadHolding = 3;
constexpr unsigned char kFcReportSlaveId = 17;
constexpr unsigned char kFcMei = 43;
constexpr unsigned char kMeiDeviceId = 14;

}  // namespace ModbusDiscovery
