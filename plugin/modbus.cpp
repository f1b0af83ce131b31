#include "plugin/modbus.h"

#include "identity/zelt_identity.h"
#include "plugin/modbus_identity_specs.h"

namespace {

constexpr unsigned int kHostContractVersion = 31;
const QString kPluginName = QStringLiteral("modbus_tcp");

// Column type codes and sizes are the host's; they are passed through as numbers.
constexpr int kTypeText = 0;
constexpr int kTypeRegister = 2;
constexpr int kTypeChoiceText = 8;

DatabaseColumnStructure column(const char* name, int type, int size, const char* defaultValue,
                               const char* description) {
    return DatabaseColumnStructure(QString::fromLatin1(name), type, size, QString::fromLatin1(defaultValue),
                                   QString::fromLatin1(description));
}

// The host reads these two selection entries as flags: the column is a discovery parameter.
void markForDiscovery(DatabaseColumnStructure& column) {
    column.insertSelectionValues(QStringLiteral("__zelt_discovery_editable"), QStringLiteral("1"));
    column.insertSelectionValues(QStringLiteral("__zelt_discovery_parameter_only"), QStringLiteral("1"));
}

// A switch stored as "0" or "1", shown as No and Yes.
DatabaseColumnStructure yesNoColumn(const char* name, const char* defaultValue, const char* description) {
    DatabaseColumnStructure choice = column(name, kTypeText, 3, defaultValue, description);
    choice.insertSelectionValues(QStringLiteral("No"), QStringLiteral("0"));
    choice.insertSelectionValues(QStringLiteral("Yes"), QStringLiteral("1"));
    return choice;
}

void addByteOrderChoices(DatabaseColumnStructure& column) {
    column.insertSelectionValues(QStringLiteral("First byte high"), QStringLiteral("0"));
    column.insertSelectionValues(QStringLiteral("First byte low (swapped)"), QStringLiteral("1"));
}

void addEndiannessChoices(DatabaseColumnStructure& column) {
    column.insertSelectionValues(QStringLiteral("Big endian"), QStringLiteral("0"));
    column.insertSelectionValues(QStringLiteral("Little endian (swapped)"), QStringLiteral("1"));
}

QList<DatabaseColumnStructure> deviceColumns(const QList<NetworkInterfaceInstance>& interfaces) {
    const char* kWordOrderText = "Big: [A B] [C D] Little: [C D] [A B]";
    const char* kByteOrderText = "High: [A B] [C D] Low: [B A] [D C]";
    QList<DatabaseColumnStructure> columns;

    columns.append(column("port", kTypeText, 0, "502", ""));
    columns.append(column("server_id", kTypeText, 0, "1", ""));

    columns.append(yesNoColumn(
        "persistent_connection", "1",
        "Keep the connection alive between polling of data. Set to no if you want it to reconnect between "
        "each poll."));

    columns.append(column("max_read_registers", kTypeText, 0, "123", "Max. registers to read in each call"));

    DatabaseColumnStructure preset = column(
        "write_preset", kTypeText, 3, "1",
        "Use single or multiple register presets when writing data. Single presets uses function code 0x05 "
        "and 0x06. Multiple presets uses function code 0x15 and 0x16");
    preset.insertSelectionValues(QStringLiteral("Single register"), QStringLiteral("0"));
    preset.insertSelectionValues(QStringLiteral("Multiple registers"), QStringLiteral("1"));
    columns.append(preset);

    DatabaseColumnStructure endianness = column("endianness", kTypeText, 3, "0", kWordOrderText);
    addEndiannessChoices(endianness);
    columns.append(endianness);
    DatabaseColumnStructure byteOrder = column("byte_order", kTypeText, 3, "0", kByteOrderText);
    addByteOrderChoices(byteOrder);
    columns.append(byteOrder);
    DatabaseColumnStructure stringEndianness = column("string_endianness", kTypeText, 3, "0", kWordOrderText);
    addEndiannessChoices(stringEndianness);
    columns.append(stringEndianness);
    DatabaseColumnStructure stringByteOrder = column("string_byte_order", kTypeText, 3, "0", kByteOrderText);
    addByteOrderChoices(stringByteOrder);
    columns.append(stringByteOrder);

    DatabaseColumnStructure timeout = column(
        "timeout_ms", kTypeText, 0, "60000",
        "Overall discovery window in milliseconds for the TCP subnet probe. Default 60000 is 60 seconds. One "
        "TCP session per device: disable an instance before scanning that slave.");
    markForDiscovery(timeout);
    columns.append(timeout);

    DatabaseColumnStructure networkInterface =
        column("network_interface", kTypeChoiceText, 64, "eth0",
               "Ethernet interface used for Modbus TCP subnet discovery. Default is eth0. Choose All IPv4 "
               "interfaces "
               "to scan every NIC.");
    networkInterface.insertSelectionValues(QStringLiteral("All IPv4 interfaces"), QStringLiteral(""));
    for (const NetworkInterfaceInstance& iface : interfaces) {
        if (!iface.name.isEmpty()) networkInterface.insertSelectionValues(iface.name, iface.name);
    }
    markForDiscovery(networkInterface);
    columns.append(networkInterface);

    DatabaseColumnStructure ports = column(
        "tcp_ports", kTypeChoiceText, 64, "502",
        "TCP ports to probe on the selected subnet. Default 502. Use commas and ranges, for example 502,1502 "
        "or 502-510. A very wide range is truncated (max 64 ports).");
    markForDiscovery(ports);
    columns.append(ports);

    DatabaseColumnStructure serverIds = column(
        "server_ids", kTypeChoiceText, 64, "1",
        "Modbus unit IDs to probe on each TCP host (0-255). Default 1. Use commas and ranges, for example "
        "1,255 or 1-10. Discovery also tries 255 if 1 does not answer. TCP-to-RTU gateways need a range "
        "covering each slave.");
    markForDiscovery(serverIds);
    columns.append(serverIds);

    columns.append(column("response_timeout_ms", kTypeText, 0, "500",
                          "Time to wait for a device's answer, in milliseconds."));
    columns.append(column("connect_timeout_ms", kTypeText, 0, "500",
                          "Time to wait for a TCP connection to the device, in milliseconds."));
    columns.append(
        column("request_pause_ms", kTypeText, 0, "0",
               "Pause before each request after an answer or a new connection, in milliseconds. For "
               "devices and gateways that drop requests sent too soon."));
    columns.append(
        column("retries", kTypeText, 0, "0",
               "How often a request that timed out or was answered busy (exception 5 or 6) is sent "
               "again before its items fail."));
    columns.append(
        yesNoColumn("share_connection", "1",
                    "Devices with the same address and port (units behind one gateway) share one connection, "
                    "one request at a time."));
    columns.append(column("backoff_max_ms", kTypeText, 0, "10000",
                          "Longest pause before a device that cannot be reached or stops answering is polled "
                          "again. 0 tries on every poll."));
    columns.append(yesNoColumn(
        "read_gaps", "1",
        "Read the registers between items along with them, so that fewer requests are needed. Set to no "
        "for devices that refuse or react to reads of registers nobody asked for."));
    columns.append(
        column("max_outstanding_requests", kTypeText, 0, "1",
               "Requests sent before waiting for their answers. Only for devices that allow several "
               "requests in flight; 1 sends one at a time."));
    columns.append(
        yesNoColumn("mask_write", "0",
                    "Write a bit of a holding register with function 22 (mask write), so that the device "
                    "changes that bit alone and no other bit is written back stale. A device that refuses "
                    "function 22 is written by reading and writing the register, as with No."));
    DatabaseColumnStructure transport = column(
        "transport", kTypeText, 3, "0",
        "How requests travel on the TCP connection: Modbus TCP (MBAP header), or RTU frames with CRC for "
        "serial devices behind a transparent serial-to-Ethernet converter.");
    transport.insertSelectionValues(QStringLiteral("Modbus TCP"), QStringLiteral("0"));
    transport.insertSelectionValues(QStringLiteral("RTU over TCP"), QStringLiteral("1"));
    transport.insertSelectionValues(QStringLiteral("Modbus/TCP Security (TLS)"), QStringLiteral("2"));
    columns.append(transport);
    // Free texts (a file path or a whole PEM text), in the type the host gives such texts.
    columns.append(column("tls_ca_certificates", kTypeRegister, 0, "",
                          "Certificate authorities that may sign the device's certificate: a PEM file on the "
                          "gateway, or the PEM text itself."));
    columns.append(
        column("tls_certificate", kTypeRegister, 0, "",
               "This gateway's certificate (carrying its Modbus role), shown to the device: a PEM file "
               "on the gateway, or the PEM text itself."));
    columns.append(
        column("tls_private_key", kTypeRegister, 0, "",
               "The private key of that certificate: a PEM file on the gateway, or the PEM text itself. "
               "Never logged or shown."));
    columns.append(column("tls_server_name", kTypeRegister, 0, "",
                          "The name or IP address the device's certificate must carry. Empty: only the "
                          "certificate chain is checked."));
    return columns;
}

QList<DatabaseColumnStructure> itemColumns() {
    QList<DatabaseColumnStructure> columns;
    columns.append(column("register", kTypeRegister, 0, "", ""));

    DatabaseColumnStructure registerType =
        column("register_type", kTypeText, 2, "4",
               "Auto calculate offset & register (e.g. 40001 converts to 0 @ holding register)");
    registerType.insertSelectionValues(QStringLiteral("Auto"), QStringLiteral("4"));
    registerType.insertSelectionValues(QStringLiteral("Holding Register"), QStringLiteral("3"));
    registerType.insertSelectionValues(QStringLiteral("Input Coil"), QStringLiteral("1"));
    registerType.insertSelectionValues(QStringLiteral("Output Coil"), QStringLiteral("0"));
    registerType.insertSelectionValues(QStringLiteral("Input Register"), QStringLiteral("2"));
    columns.append(registerType);

    // Listed by size, not by stored code: the 64-bit types were added later as 8 and 9.
    DatabaseColumnStructure type = column("type", kTypeText, 2, "", "");
    const std::pair<const char*, const char*> kTypes[] = {
        {"BIT", "0"},   {"INT16", "1"},  {"UINT16", "2"}, {"INT32", "3"},  {"UINT32", "4"},
        {"INT64", "8"}, {"UINT64", "9"}, {"FLOAT", "5"},  {"DOUBLE", "6"}, {"STRING", "7"}};
    for (const auto& choice : kTypes)
        type.insertSelectionValues(QString::fromLatin1(choice.first), QString::fromLatin1(choice.second));
    columns.append(type);

    columns.append(column("floating_point_precision", kTypeText, 4, "4", ""));
    return columns;
}

}  // namespace

Modbus::Modbus() : stopping(false) {}

Modbus::~Modbus() = default;

bool Modbus::init() {
    writeLogDebug(QStringLiteral("Init Modbus plugin"));

    const QList<DatabaseColumnStructure> devices = deviceColumns(pluginInterface.getNetworkInterfaces());
    const QList<DatabaseColumnStructure> items = itemColumns();
    const QList<DatabaseColumnStructure> pluginColumns;
    const QList<DatabaseColumnStructure> fourthColumns;

    PluginInitOptions options;
    options.flagA = false;
    options.flagB = false;
    options.flagD = true;
    options.flagE = false;
    options.actionName = QStringLiteral("discover");

    pluginInterface.initPlugin(kPluginName, kHostContractVersion, pluginColumns, items, devices,
                               fourthColumns, options);

    zelt_identity::ensureItemsForAllDevices(&pluginInterface, modbusIdentityStubSpecs());

    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        stopping = false;
        connections.reserve(pluginInterface.getPluginDevices().size());
    }
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        identityProbed.clear();
        identityValues.clear();
    }

    writeLogDebug(QStringLiteral("Modbus plugin initialized"));
    return true;
}

bool Modbus::getEventData(LogList*) {
    return true;
}

bool Modbus::logCallback(LogList*) {
    return true;
}

void Modbus::writeLogInfo(QString message) {
    pluginInterface.logInfo(message);
}
void Modbus::writeLogWarning(QString message) {
    pluginInterface.logWarning(message);
}
void Modbus::writeLogError(QString message) {
    pluginInterface.logError(message);
}
void Modbus::writeLogDebug(QString message) {
    pluginInterface.logDebug(message);
}
