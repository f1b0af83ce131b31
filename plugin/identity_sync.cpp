// Reads a device's identification once per plugin run and publishes it into every poll.
#include "discovery/frames.h"
#include "discovery/identification.h"
#include "identity/zelt_identity.h"
#include "plugin/modbus.h"
#include "plugin/modbus_identity_specs.h"

namespace {

constexpr unsigned char kFcMei = 43;
constexpr unsigned char kFcReportSlaveId = 17;

constexpr unsigned char kReadBasicIdentification = 1;
constexpr unsigned char kReadRegularIdentification = 2;
// A device that keeps saying "more follows" must not hold the poll for longer than this many exchanges.
constexpr int kMaxIdentificationRequests = 4;

enum ReadStatus { kNoAnswer = 0, kException = 1, kGotData = 2 };

int readDeviceIdObjects(Connection& connection, unsigned char readCode,
                        ModbusDiscovery::IdentifyResult* result) {
    bool gotData = false;
    unsigned char objectId = 0;
    for (int request = 0; request < kMaxIdentificationRequests; ++request) {
        QByteArray response;
        int error = 0;
        if (connection.exchangePdu(ModbusDiscovery::readDeviceIdPdu(readCode, objectId), &response, &error) <
            0)
            return gotData ? kGotData : kNoAnswer;
        const ModbusDiscovery::IdentifyResult answer = ModbusDiscovery::identifyFromResponse(
            static_cast<unsigned char>(connection.slave()), kFcMei, response);
        if (!answer.ok) return gotData ? kGotData : kNoAnswer;
        if (answer.source == QLatin1String("exception")) return gotData ? kGotData : kException;
        gotData = true;
        ModbusDiscovery::combineIdentify(result, answer);
        if (!answer.moreFollows) return kGotData;
        objectId = answer.nextObjectId;
    }
    return kGotData;
}

// The probe waits as long as any request to the device ("response_timeout_ms"): a slow device or gateway
// answers identification no faster than a read, and an answer cut off by a shorter wait would arrive late.
QMap<QString, QString> probeModbusIdentity(Connection& connection) {
    ModbusDiscovery::IdentifyResult result;
    if (readDeviceIdObjects(connection, kReadBasicIdentification, &result) == kGotData)
        readDeviceIdObjects(connection, kReadRegularIdentification, &result);

    if (ModbusDiscovery::identityItemValues(result).isEmpty()) {
        QByteArray response;
        int error = 0;
        if (connection.exchangePdu(ModbusDiscovery::reportSlaveIdPdu(), &response, &error) >= 0) {
            ModbusDiscovery::combineIdentify(
                &result, ModbusDiscovery::identifyFromResponse(static_cast<unsigned char>(connection.slave()),
                                                               kFcReportSlaveId, response));
        }
    }

    // A late answer to a timed-out request would otherwise be read as the answer to the next poll.
    connection.flush();
    return ModbusDiscovery::identityItemValues(result);
}

}  // namespace

void Modbus::syncDeviceIdentity(Connection& connection, int deviceId, LogList* list) {
    if (deviceId <= 0 || !connection) return;

    bool fresh = false;
    QMap<QString, QString> values;
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        if (identityProbed.contains(deviceId))
            values = identityValues.value(deviceId);
        else
            fresh = true;
    }

    if (fresh) {
        values = probeModbusIdentity(connection);
        {
            std::lock_guard<std::mutex> lock(identityMutex);
            identityProbed.insert(deviceId);
            if (!values.isEmpty()) identityValues[deviceId] = values;
        }
        if (values.isEmpty())
            writeLogInfo(QStringLiteral("No Modbus identity (43/14 or 17) on device %1").arg(deviceId));
        else
            writeLogInfo(
                QStringLiteral("Read %1 identity value(s) for device %2").arg(values.size()).arg(deviceId));
    }

    if (values.isEmpty()) return;
    if (fresh) {
        const int created =
            zelt_identity::ensureItems(&pluginInterface, deviceId, modbusIdentityValueSpecs(values));
        zelt_identity::requestReloadIfIdentityCreated(&pluginInterface, created);
    }
    if (!list) return;
    if (!list->dataItems.contains(nullptr)) {
        zelt_identity::publishValues(&pluginInterface, list, values, "register");
        return;
    }
    // The publisher looks into every entry; it gets the batch without the host's empty entries, and what it
    // appends goes to the end of the real batch.
    LogList entries;
    entries.device = list->device;
    entries.plugin = list->plugin;
    for (DataItem* dataItem : list->dataItems)
        if (dataItem) entries.dataItems.append(dataItem);
    const int given = entries.dataItems.size();
    zelt_identity::publishValues(&pluginInterface, &entries, values, "register");
    list->dataItems.append(entries.dataItems.mid(given));
}
