#pragma once

#include <QString>
#include <QtGlobal>

namespace ModbusDiscovery {

// Identification data read from one unit.
struct IdentifyResult {
    bool ok = false;
    quint8 unitId = 1;
    QString vendor;           // object 0x00 VendorName
    QString productCode;      // object 0x01 ProductCode; also Report Slave ID additional data
    QString version;          // object 0x02 MajorMinorRevision
    QString vendorUrl;        // object 0x03 VendorUrl
    QString productName;      // object 0x04 ProductName
    QString modelName;        // object 0x05 ModelName; also Report Slave ID additional data
    QString userApplication;  // object 0x06 UserApplicationName
    QString source;           // "device-id", "slave-id", "exception", "holding", "coil" or "pdu"
    bool moreFollows = false;
    quint8 nextObjectId = 0;
};

}  // namespace ModbusDiscovery
