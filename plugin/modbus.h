#pragma once
// The plugin object the host loads: declares the configuration, polls and writes items over Modbus TCP.

#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "codec/var_type.h"
#include "connection/connection.h"
#include "host/plugin_interface.h"
#include "host/records.h"
#include "host/zelt_interface.h"
#include "plugin/read_entry.h"

class Modbus : public QObject, public ZeltInterface {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.dornvale.ZELT/1.0.7")
    Q_INTERFACES(ZeltInterface)

public:
    struct TcpDeviceConnection {
        Connection connection;
        std::mutex mutex;
        // Guarded by the mutex: the last poll's parsed items by batch position, and the read list's buffer.
        std::vector<ParsedItem> parsedItems;
        std::vector<ReadEntry> readList;
        // The batch positions of the last sorted read list, in its order, and the batch size they belong to.
        std::vector<unsigned int> sortedSlots;
        size_t sortedBatchSize = 0;
        bool sortedSlotsValid = false;
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

    PluginInterface pluginInterface;
    std::mutex connectionsMutex;
    bool stopping;
    std::unordered_map<int, std::shared_ptr<TcpDeviceConnection>> connections;
    std::mutex identityMutex;
    QSet<int> identityProbed;
    QMap<int, QMap<QString, QString>> identityValues;
};
