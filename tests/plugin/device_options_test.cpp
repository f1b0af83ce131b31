// The plant-network settings of a device: every text that is not a number in range reads as the default.

#include "plugin/device_options.h"

#include <gtest/gtest.h>

#include "connection/request_discipline.h"

namespace {

struct OptionRow {
    const char* key;
    const char* text;  // nullptr: the setting is missing
    int expected;
};

int optionValue(DeviceOptions const& options, QString const& key) {
    if (key == QLatin1String("response_timeout_ms")) return options.responseTimeoutMs;
    if (key == QLatin1String("connect_timeout_ms")) return options.connectTimeoutMs;
    if (key == QLatin1String("request_pause_ms")) return options.requestPauseMs;
    if (key == QLatin1String("retries")) return options.retries;
    if (key == QLatin1String("share_connection")) return options.shareConnection ? 1 : 0;
    if (key == QLatin1String("backoff_max_ms")) return options.backoffMaxMs;
    if (key == QLatin1String("read_gaps")) return options.readGaps ? 1 : 0;
    if (key == QLatin1String("max_outstanding_requests")) return options.maxOutstandingRequests;
    if (key == QLatin1String("mask_write")) return options.maskWrite ? 1 : 0;
    if (key == QLatin1String("transport")) return static_cast<int>(options.transport);
    ADD_FAILURE() << key.toStdString();
    return -1;
}

TEST(DeviceOptionsTest, EachTextReadsAsItsNumberOrTheDefault) {
    const OptionRow rows[] = {
        {"response_timeout_ms", nullptr, 500},
        {"response_timeout_ms", "", 500},
        {"response_timeout_ms", "abc", 500},
        {"response_timeout_ms", "0", 500},
        {"response_timeout_ms", "1", 1},
        {"response_timeout_ms", "60000", 60000},
        {"response_timeout_ms", "60001", 500},
        {"response_timeout_ms", " 750 ", 750},
        {"response_timeout_ms", "-5", 500},
        {"connect_timeout_ms", nullptr, 500},
        {"connect_timeout_ms", "2000", 2000},
        {"connect_timeout_ms", "1.5", 500},
        {"request_pause_ms", nullptr, 0},
        {"request_pause_ms", "0", 0},
        {"request_pause_ms", "10", 10},
        {"request_pause_ms", "10000", 10000},
        {"request_pause_ms", "10001", 0},
        {"retries", nullptr, 0},
        {"retries", "5", 5},
        {"retries", "6", 0},
        {"retries", "-1", 0},
        {"transport", nullptr, 0},
        {"transport", "", 0},
        {"transport", "0", 0},
        {"transport", "1", 1},
        {"transport", " 1 ", 1},
        {"transport", "2", 2},
        {"transport", "3", 0},
        {"transport", "-1", 0},
        {"transport", "rtu", 0},
        {"mask_write", nullptr, 0},
        {"mask_write", "1", 1},
        {"mask_write", "2", 0},
        {"share_connection", nullptr, 1},
        {"share_connection", "0", 0},
        {"share_connection", "1", 1},
        {"share_connection", "2", 1},
        {"share_connection", "yes", 1},
        {"backoff_max_ms", nullptr, 10000},
        {"backoff_max_ms", "0", 0},
        {"backoff_max_ms", "600000", 600000},
        {"backoff_max_ms", "600001", 10000},
    };
    for (const OptionRow& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " = " + (row.text ? row.text : "(missing)"));
        QMap<QString, QString> settings;
        if (row.text) settings.insert(QString::fromLatin1(row.key), QString::fromLatin1(row.text));
        EXPECT_EQ(optionValue(deviceOptions(settings), QString::fromLatin1(row.key)), row.expected);
    }
}

TEST(RequestDisciplineTest, TimeOutsAndBusyAnswersAreSentAgainOtherAnswersAreNot) {
    EXPECT_TRUE(request_discipline::isRetryable(ETIMEDOUT));
    EXPECT_TRUE(request_discipline::isRetryable(EINPROGRESS));
    EXPECT_TRUE(request_discipline::isRetryable(EMBXSBUSY));
    EXPECT_TRUE(request_discipline::isRetryable(EMBXACK));
    EXPECT_FALSE(request_discipline::isRetryable(EMBXILADD));
    EXPECT_FALSE(request_discipline::isRetryable(EMBXGTAR));
    EXPECT_FALSE(request_discipline::isRetryable(ECONNRESET));
}

TEST(RequestDisciplineTest, OnlyTransportFailuresCloseTheConnection) {
    for (int code : {ECONNRESET, ECONNABORTED, EPIPE, ENOTCONN, EBADF, ETIMEDOUT, EINPROGRESS, EMBBADDATA})
        EXPECT_TRUE(request_discipline::isTransportFailure(code)) << code;
    for (int code : {EMBXILFUN, EMBXILADD, EMBXILVAL, EMBXSFAIL, EMBXACK, EMBXSBUSY, EMBXGPATH, EMBXGTAR})
        EXPECT_FALSE(request_discipline::isTransportFailure(code)) << code;
}

}  // namespace

TEST(DevicePortTest, ModbusTcpSecurityDefaultsTo802AndEverythingElseTo502) {
    const struct {
        const char* port;  // nullptr: not set
        const char* transport;
        quint16 expected;
    } rows[] = {
        {nullptr, nullptr, 502}, {"0", "0", 502},  {"abc", "1", 502},   {nullptr, "2", 802},
        {"0", "2", 802},         {"x", "2", 802},  {"1502", "2", 1502}, {"1502", "0", 1502},
        {nullptr, "3", 502},     {"", " 2 ", 802},
    };
    for (const auto& row : rows) {
        QMap<QString, QString> settings;
        if (row.port) settings.insert(QStringLiteral("port"), QString::fromLatin1(row.port));
        if (row.transport) settings.insert(QStringLiteral("transport"), QString::fromLatin1(row.transport));
        EXPECT_EQ(devicePort(settings), row.expected)
            << (row.port ? row.port : "-") << " " << (row.transport ? row.transport : "-");
    }
}

TEST(DeviceOptionsTlsTest, CertificateSettingsAreReadOnlyForModbusTcpSecurity) {
    QMap<QString, QString> settings{{"tls_ca_certificates", "/etc/ca.pem"},
                                    {"tls_certificate", "/etc/gw.pem"},
                                    {"tls_private_key", "/etc/gw.key"},
                                    {"tls_server_name", "meter.example"}};
    EXPECT_EQ(deviceOptions(settings).tls, TlsSettings{});
    settings.insert(QStringLiteral("transport"), QStringLiteral("2"));
    const TlsSettings expected{QStringLiteral("/etc/ca.pem"), QStringLiteral("/etc/gw.pem"),
                               QStringLiteral("/etc/gw.key"), QStringLiteral("meter.example")};
    EXPECT_EQ(deviceOptions(settings).tls, expected);
}
