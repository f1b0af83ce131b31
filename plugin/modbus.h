#pragma once
// The plugin object the host loads: declares the configuration, polls and writes items over Modbus TCP.

#include <QHash>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "codec/var_type.h"
#include "connection/connection.h"
#include "host/plugin_interface.h"
#include "host/records.h"
#include "host/zelt_interface.h"
#include "plugin/backoff.h"
#include "plugin/device_health.h"
#include "plugin/device_options.h"
#include "plugin/read_entry.h"
#include "plugin/request_plan.h"

class Modbus : public QObject, public ZeltInterface {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.dornvale.ZELT/1.0.7")
    Q_INTERFACES(ZeltInterface)

public:
    // One TCP connection. Devices with the same address and port (units behind one gateway) share one, so
    // that a gateway that allows few connections serves them all; its mutex lets one poll or write at a time
    // use it.
    struct TcpDeviceConnection {
        Connection connection;
        std::mutex mutex;
        // Guarded by connectionsMutex: the address and port (or the one device) this connection is for.
        QString key;
        // Guarded by the mutex: how often the connection was opened (so that each device counts the
        // connections it used), and the time-outs since its last answer.
        quint64 generation = 0;
        int consecutiveTimeouts = 0;

        // Guarded by the mutex: the devices using the connection. A device that left it (its address, port or
        // sharing changed) is forgotten at once; one that has not used it for a long time (removed from the
        // host) is forgotten then, so that neither keeps the connection open for ever.
        void noteUse(int deviceId, qint64 nowMs);
        void forget(int deviceId);
        void setKeepOpen(int deviceId, bool keep);
        bool anyKeepsOpen() const;
        size_t userCount() const { return users.size(); }

    private:
        struct Use {
            bool keepOpen = false;
            qint64 lastUseMs = 0;
        };
        std::map<int, Use> users;
    };
    // What the plugin keeps of one device between its polls; its mutex is held for a whole poll or write.
    struct DeviceState {
        std::mutex mutex;
        // The last poll's parsed items by batch position, and the read list's buffer.
        std::vector<ParsedItem> parsedItems;
        std::vector<ReadEntry> readList;
        std::vector<ReadEntry> diagnosticList;
        // The batch positions of the last sorted read list, in its order, and the batch size they belong to.
        std::vector<unsigned int> sortedSlots;
        size_t sortedBatchSize = 0;
        bool sortedSlotsValid = false;
        // The requests planned for the read list, and what they are planned with; the addresses the device
        // refused, learned by its answers.
        std::vector<request_plan::PlannedRequest> plan;
        std::vector<int> unreadable;
        bool planValid = false;
        bool itemsChanged = false;
        unsigned char planLimit = 0;
        bool planReadGaps = true;
        size_t planHoleCount = 0;
        size_t planItemCount = 0;
        request_plan::Holes holes;
        // Addresses the device answered for since the holes were learned (kept only once it refused one).
        request_plan::Holes verified;
        qint64 holesLearnedAtMs = 0;
        QMap<QString, QString> plannedSettings;
        // The device answered function 22 (mask write) with "illegal function": its bits are written by
        // reading and writing the register.
        bool maskWriteRefused = false;
        Backoff backoff;
        DeviceHealth health;
        // The connection generation this device last used.
        quint64 seenGeneration = 0;
    };
    using DataItemIterator = std::vector<DataItem*>::iterator;

    Modbus();
    ~Modbus() override;

    bool init() override;
    bool readData(LogList* list) override;
    bool getEventData(LogList* list) override;
    bool logCallback(LogList* list) override;
    bool writeData(LogList* list) override;
    bool stopPlugin() override;

    void writeLogInfo(QString message);
    void writeLogWarning(QString message);
    void writeLogError(QString message);
    void writeLogDebug(QString message);

    // Connection cache.
    std::shared_ptr<TcpDeviceConnection> tcpDeviceConnection(int deviceId, bool* stopping);
    // The connection the device uses under its settings: shared by address and port unless it asks for its
    // own. Empty while the plugin is stopping.
    std::shared_ptr<TcpDeviceConnection> tcpDeviceConnection(DeviceInstancePlugin const& device,
                                                             DeviceOptions const& options, bool* stopping);
    // The device's kept state, created on first use; empty while the plugin is stopping.
    std::shared_ptr<DeviceState> deviceState(int deviceId);
    Connection makeConnection(DeviceInstancePlugin& device, int* error);

    // Poll cycle.
    DataItemIterator readItems(Connection& connection, DataItemIterator first, DataItemIterator last,
                               bool littleEndian, bool byteSwapped, bool stringLittleEndian,
                               bool stringByteSwapped, unsigned char maxReadRegisters);

    // Identity.
    void syncDeviceIdentity(Connection& connection, int deviceId, LogList* list);

    // Addressing.
    static unsigned int getLengthOfVar(VarType type);
    static RegisterType getType(ItemInstancePlugin const& item);
    static int getOffset(ItemInstancePlugin const& item);
    static unsigned int getSpan(ItemInstancePlugin const& item);
    static int getBit(ItemInstancePlugin const& item);
    static bool isLittleEndian(DeviceInstancePlugin const& device);
    static bool isByteSwapped(DeviceInstancePlugin const& device);
    static bool isStringLittleEndian(DeviceInstancePlugin const& device);
    static bool isStringByteSwapped(DeviceInstancePlugin const& device);

    // Decoding.
    DataItemIterator extract(DataItemIterator first, DataItemIterator last, int start,
                             std::vector<unsigned char>& bits);
    DataItemIterator extract(DataItemIterator first, DataItemIterator last, int start,
                             std::vector<unsigned short>& words, bool littleEndian, bool byteSwapped,
                             bool stringLittleEndian, bool stringByteSwapped);
    template <typename T>
    QString extractNumber(unsigned short* words, bool littleEndian, bool byteSwapped, int precision);
    static unsigned short swapBytes(unsigned short w);

    // Write path.
    bool writeVar(Connection& conn, ItemInstancePlugin& item, bool littleEndian, bool byteSwapped,
                  bool stringLittleEndian, bool stringByteSwapped, QString value, bool multiple);

private:
    bool readBatch(LogList* list);
    // The poll proper; `used` receives the connection it used, if any.
    bool pollDevice(LogList* list, DeviceState& state, DeviceOptions const& options, int batchSize,
                    std::shared_ptr<TcpDeviceConnection>* used);
    // Writes the device's diagnostic items and keeps its poll's time and outcome.
    void finishPoll(DeviceState& state, DeviceInstancePlugin const& device, bool ok,
                    TcpDeviceConnection* used, std::chrono::steady_clock::time_point started);
    // Plans the requests of the device's read list, again only when the list, the limit, the settings or the
    // learned holes changed.
    void planReads(DeviceState& state, DeviceOptions const& options, unsigned char limit,
                   DeviceInstancePlugin const& device);
    // Devices that did not keep up with several requests in flight are asked one at a time for the rest of
    // the plugin's life, with one warning.
    bool pipelineRefused(int deviceId);
    void refusePipelining(DeviceInstancePlugin const& device);
    // Closes the connection after a batch unless a device using it keeps it open.
    void keepOrClose(TcpDeviceConnection& entry, DeviceInstancePlugin const& device);

    PluginInterface pluginInterface;
    std::mutex connectionsMutex;
    bool stopping;
    std::unordered_map<int, std::shared_ptr<TcpDeviceConnection>> connections;
    // Guarded by connectionsMutex too: the connections by address and port, and each device's kept state.
    QHash<QString, std::shared_ptr<TcpDeviceConnection>> endpoints;
    std::unordered_map<int, std::shared_ptr<DeviceState>> deviceStates;
    // Guarded by connectionsMutex; kept through stops.
    QSet<int> pipelineRefusingDevices;
    std::mutex identityMutex;
    QSet<int> identityProbed;
    QMap<int, QMap<QString, QString>> identityValues;
};
