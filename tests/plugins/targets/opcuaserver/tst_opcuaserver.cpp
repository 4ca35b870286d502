#include "opcuaserver.h"

#include "logcapture.h"
#include "mmdatasets.h"
#include "nodescript.h"
#include "pluginchecks.h"
#include "testsupport.h"
#include "wwaddressspace.h"
#include "wwmodel.h"
#include "wwtypes.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/client_subscriptions.h>
#include <open62541/plugin/create_certificate.h>

#include <chrono>
#include <future>

namespace {

const QDateTime When = QDateTime::fromMSecsSinceEpoch(1614585600250, Qt::UTC);

void silent(void *, UA_LogLevel, UA_LogCategory, const char *, va_list) { }

QVariant statev1(qint32 code)
{
    StateV1 record;
    record.state = code;
    return QVariant::fromValue(record);
}

/** Runs a blocking client call on a thread of its own while the event loop turns the server. */
template <typename F> auto onClientThread(F call)
{
    auto result = std::async(std::launch::async, call);
    QElapsedTimer clock;
    clock.start();
    while (result.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready && clock.elapsed() < 20000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return result.get();
}

/** An open62541 client of the target's server. */
class Client
{
public:
    Client()
        : m_client(UA_Client_new())
    {
        UA_ClientConfig_setDefault(UA_Client_getConfig(m_client));
        UA_Client_getConfig(m_client)->logging->log = nullptr;
    }
    /** A client that connects with Basic256Sha256 and SignAndEncrypt, with its own certificate, trusting server. */
    Client(const UA_ByteString &certificate, const UA_ByteString &key, const QByteArray &server)
        : m_client(UA_Client_new())
    {
        UA_ClientConfig *config = UA_Client_getConfig(m_client);
        UA_ByteString trusted { size_t(server.size()), reinterpret_cast<UA_Byte *>(const_cast<char *>(server.data())) };
        UA_ClientConfig_setDefaultEncryption(config, certificate, key, &trusted, 1, nullptr, 0);
        config->logging->log = nullptr;
        config->securityMode = UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
        UA_String_clear(&config->securityPolicyUri);
        config->securityPolicyUri = UA_STRING_ALLOC("http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256");
        UA_String_clear(&config->clientDescription.applicationUri);
        config->clientDescription.applicationUri = UA_STRING_ALLOC("urn:orvix:test:client");
    }
    ~Client()
    {
        onClientThread([this] { return UA_Client_disconnect(m_client); });
        UA_Client_delete(m_client);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    UA_StatusCode connect(const QString &url)
    {
        const QByteArray bytes = url.toUtf8();
        return onClientThread([&] { return UA_Client_connect(m_client, bytes.constData()); });
    }
    UA_StatusCode login(const QString &url, const char *user, const char *password)
    {
        const QByteArray bytes = url.toUtf8();
        return onClientThread([&] { return UA_Client_connectUsername(m_client, bytes.constData(), user, password); });
    }
    UA_UInt16 namespaceIndex(const char *uri)
    {
        UA_UInt16 index = 0;
        UA_String text = UA_STRING(const_cast<char *>(uri));
        onClientThread([&] { return UA_Client_NamespaceGetIndex(m_client, &text, &index); });
        return index;
    }
    /** The value of the machine's node at path (below the machine) as a QVariant; invalid when unreadable. */
    QVariant read(const QString &path)
    {
        const QByteArray id = path.toUtf8();
        const UA_UInt16 ns = namespaceIndex(WwAddressSpace::MachinesUri);
        UA_Variant value;
        UA_Variant_init(&value);
        const UA_StatusCode status = onClientThread([&] {
            return UA_Client_readValueAttribute(
                m_client, UA_NODEID_STRING(ns, const_cast<char *>(id.constData())), &value);
        });
        QVariant result;
        if (status == UA_STATUSCODE_GOOD && UA_Variant_isScalar(&value)) {
            if (value.type == &UA_TYPES[UA_TYPES_BOOLEAN])
                result = bool(*static_cast<UA_Boolean *>(value.data));
            else if (value.type == &UA_TYPES[UA_TYPES_INT32])
                result = int(*static_cast<UA_Int32 *>(value.data));
            else if (value.type == &UA_TYPES[UA_TYPES_UINT16])
                result = uint(*static_cast<UA_UInt16 *>(value.data));
            else if (value.type == &UA_TYPES[UA_TYPES_STRING])
                result = text(*static_cast<UA_String *>(value.data));
            else if (value.type == &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]) {
                const auto *localized = static_cast<UA_LocalizedText *>(value.data);
                result = QString(text(localized->locale) + QLatin1Char('|') + text(localized->text));
            }
        }
        UA_Variant_clear(&value);
        return result;
    }
    /** The browse names of the forward hierarchical references of a node. */
    QStringList browse(const UA_NodeId &node)
    {
        UA_BrowseRequest request;
        UA_BrowseRequest_init(&request);
        UA_BrowseDescription description;
        UA_BrowseDescription_init(&description);
        description.nodeId = node;
        description.browseDirection = UA_BROWSEDIRECTION_FORWARD;
        description.referenceTypeId = UA_NODEID_NUMERIC(0, UA_NS0ID_HIERARCHICALREFERENCES);
        description.includeSubtypes = true;
        description.resultMask = UA_BROWSERESULTMASK_ALL;
        request.nodesToBrowse = &description;
        request.nodesToBrowseSize = 1;
        UA_BrowseResponse response = onClientThread([&] { return UA_Client_Service_browse(m_client, request); });
        QStringList names;
        for (size_t i = 0; i < response.resultsSize; ++i)
            for (size_t j = 0; j < response.results[i].referencesSize; ++j)
                names << text(response.results[i].references[j].browseName.name);
        UA_BrowseResponse_clear(&response);
        return names;
    }
    UA_Client *client() const { return m_client; }

    static QString text(const UA_String &value)
    {
        return QString::fromUtf8(reinterpret_cast<const char *>(value.data), int(value.length));
    }

private:
    UA_Client *m_client;
};

/** node-opcua's client of the target, reporting in JSON lines. */
const QString ClientScript = QStringLiteral("tests/nodeopcua/opcuaserver-client.js");

} // namespace

class TestOpcUaServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void library();
    void sampleIni();
    void readmeKeyTable();
    void readmeQuotesSampleIni();

    void servesConfiguredMachines();
    void stateAndFlagsFollowTheDatasets();
    void notificationRaisesAnEvent();
    void absentOptionalTurnsBad();
    void portInUseFailsInit();
    void malformedUsersFailInit();
    void unknownPolicyFailsInit();
    void passwordFileIsRead();
    void badPasswordFileFailsInit();
    void badAllowAnonymousFailsInit();
    void unreadableCertificateFailsInit();
    void datasetsBeforeInitAreIgnored();
    void encryptedLoginWithTrustedCertificate();
    void nodeOpcUaClientBrowsesReadsAndSubscribes();
    void nodeOpcUaClientLogsInEncrypted();

private:
    QVariantMap config(const QVariantMap &group = QVariantMap()) const;
    QVariantMap identification() const;

    LogCapture m_log { QStringLiteral("opcuaServer") };
    QTemporaryDir m_dir;
    quint16 m_port = 0;
};

QVariantMap TestOpcUaServer::identification() const
{
    const QVariantMap m1 { { "locale", "de" }, { "ProductInstanceUri", "urn:example:m1" }, { "Manufacturer", "Acme" },
        { "Model", "EB 200" }, { "DeviceClass", "EdgeBander" }, { "SerialNumber", "4711" },
        { "YearOfConstruction", "2019" }, { "MonthOfConstruction", "7" },
        { "InitialOperationDate", "2021-03-04 05:06:07" } };
    return QVariantMap { { "m1", m1 } };
}

QVariantMap TestOpcUaServer::config(const QVariantMap &group) const
{
    QVariantMap own { { "port", QString::number(m_port) }, { "securityPolicies", "None" },
        { "pki", QString(m_dir.path() + QStringLiteral("/pki")) } };
    for (auto key = group.constBegin(); key != group.constEnd(); ++key)
        own.insert(key.key(), key.value());
    return QVariantMap { { "opcuaServerTarget", own }, { "opcuawwcsidentification", identification() } };
}

void TestOpcUaServer::init()
{
    m_port = TestSupport::freePort();
    m_log.start();
}

void TestOpcUaServer::cleanup()
{
    m_log.stop();
}

void TestOpcUaServer::library()
{
    PluginChecks::checkTargetLibrary(QStringLiteral("opcuaserver"), QStringLiteral("opcuaServer"));
}

void TestOpcUaServer::sampleIni()
{
    PluginChecks::checkSampleIni(
        QStringLiteral("targets/opcuaserver"), QStringLiteral("opcuaServerTarget"), OpcUaServer::settings().keys());
}

void TestOpcUaServer::readmeKeyTable()
{
    PluginChecks::checkReadmeKeyTable(QStringLiteral("targets/opcuaserver"), OpcUaServer::settings().keys());
}

void TestOpcUaServer::readmeQuotesSampleIni()
{
    PluginChecks::checkReadmeQuotesSampleIni(QStringLiteral("targets/opcuaserver"));
}

void TestOpcUaServer::servesConfiguredMachines()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(), shared));
    QCOMPARE(target.machineCount(), 1);

    Client client;
    QCOMPARE(client.connect(QStringLiteral("opc.tcp://localhost:%1").arg(m_port)), UA_STATUSCODE_GOOD);
    QVERIFY(client.browse(UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER)).contains(QStringLiteral("Machines")));
    const UA_UInt16 machinery = client.namespaceIndex(WwModel::MachineryUri);
    QVERIFY(machinery > 0);
    QCOMPARE(client.browse(UA_NODEID_NUMERIC(machinery, 1001)), QStringList { "m1" });
    const UA_UInt16 machines = client.namespaceIndex(WwAddressSpace::MachinesUri);
    QStringList children = client.browse(UA_NODEID_STRING(machines, const_cast<char *>("m1")));
    children.sort();
    QCOMPARE(children, (QStringList { "Events", "Identification", "State" }));

    QCOMPARE(client.read("m1/Identification/Manufacturer"), QVariant("de|Acme"));
    QCOMPARE(client.read("m1/Identification/SerialNumber"), QVariant("4711"));
    QCOMPARE(client.read("m1/Identification/YearOfConstruction"), QVariant(2019u));
    QVERIFY(!client.read("m1/Identification/ProductCode").isValid());
    QCOMPARE(client.read("m1/State/Machine/Overview/CurrentState"), QVariant(0));
    QCOMPARE(client.read("m1/State/Machine/Flags/FeedRuns"), QVariant(false));
    QVERIFY(!client.read("m1/State/Machine/Flags/Moving").isValid());
}

void TestOpcUaServer::stateAndFlagsFollowTheDatasets()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(), shared));
    target.processData(When, "m2", "src", QVariant::fromValue(WwCapabilities {}));
    target.processData(When, "m2", "src", statev1(2));
    OrderV1 order;
    order.programName = QStringLiteral("door-17");
    target.processData(When, "m2", "src", QVariant::fromValue(order));
    QCOMPARE(target.machineCount(), 2);

    Client client;
    QCOMPARE(client.connect(QStringLiteral("opc.tcp://localhost:%1").arg(m_port)), UA_STATUSCODE_GOOD);
    QCOMPARE(client.read("m2/State/Machine/Overview/CurrentState"), QVariant(3));
    QCOMPARE(client.read("m2/State/Machine/Overview/CurrentMode"), QVariant(1));
    QCOMPARE(client.read("m2/State/Machine/Flags/MachineOn"), QVariant(true));
    QCOMPARE(client.read("m2/ManufacturerSpecific/LastProgramName"), QVariant("door-17"));
    QCOMPARE(client.read("m2/Identification/Manufacturer"), QVariant("en|"));

    target.processData(When, "m2", "src", statev1(7));
    QCOMPARE(client.read("m2/State/Machine/Overview/CurrentState"), QVariant(4));
    QCOMPARE(client.read("m2/State/Machine/Flags/Error"), QVariant(true));
}

namespace {

struct EventInbox
{
    QStringList messages;
};

void eventArrived(UA_Client *, UA_UInt32, void *, UA_UInt32, void *context, size_t fieldCount, UA_Variant *fields)
{
    auto *inbox = static_cast<EventInbox *>(context);
    QStringList parts;
    for (size_t i = 0; i < fieldCount; ++i) {
        const UA_Variant &field = fields[i];
        if (field.type == &UA_TYPES[UA_TYPES_STRING] && UA_Variant_isScalar(&field))
            parts << Client::text(*static_cast<UA_String *>(field.data));
        else if (field.type == &UA_TYPES[UA_TYPES_LOCALIZEDTEXT])
            parts << Client::text(static_cast<UA_LocalizedText *>(field.data)->text);
        else if (field.type == &UA_TYPES[UA_TYPES_UINT16])
            parts << QString::number(*static_cast<UA_UInt16 *>(field.data));
        else if (field.type == &UA_TYPES[UA_TYPES_INT32])
            parts << QString::number(*static_cast<UA_Int32 *>(field.data));
        else if (field.type == &UA_TYPES[UA_TYPES_STRING])
            parts << QStringLiteral("[%1]").arg(field.arrayLength);
        else
            parts << QStringLiteral("-");
    }
    inbox->messages << parts.join(QLatin1Char(' '));
}

} // namespace

void TestOpcUaServer::notificationRaisesAnEvent()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(), shared));
    target.processData(When, "m1", "src", QVariant::fromValue(WwCapabilities {}));

    Client client;
    QCOMPARE(client.connect(QStringLiteral("opc.tcp://localhost:%1").arg(m_port)), UA_STATUSCODE_GOOD);
    const UA_UInt16 ww = client.namespaceIndex(WwModel::WoodworkingUri);
    const UA_UInt16 machines = client.namespaceIndex(WwAddressSpace::MachinesUri);

    UA_CreateSubscriptionRequest request = UA_CreateSubscriptionRequest_default();
    request.requestedPublishingInterval = 20;
    const UA_CreateSubscriptionResponse subscription = onClientThread(
        [&] { return UA_Client_Subscriptions_create(client.client(), request, nullptr, nullptr, nullptr); });
    QCOMPARE(subscription.responseHeader.serviceResult, UA_STATUSCODE_GOOD);

    UA_SimpleAttributeOperand select[5];
    UA_QualifiedName paths[5] = { UA_QUALIFIEDNAME(ww, const_cast<char *>("MessageId")),
        UA_QUALIFIEDNAME(0, const_cast<char *>("Message")), UA_QUALIFIEDNAME(0, const_cast<char *>("Severity")),
        UA_QUALIFIEDNAME(ww, const_cast<char *>("EventCategory")),
        UA_QUALIFIEDNAME(ww, const_cast<char *>("PathParts")) };
    for (int i = 0; i < 5; ++i) {
        UA_SimpleAttributeOperand_init(&select[i]);
        // The fields of BaseEventType are selected through that type, the others through WwBaseEventType.
        select[i].typeDefinitionId
            = paths[i].namespaceIndex == 0 ? UA_NODEID_NUMERIC(0, UA_NS0ID_BASEEVENTTYPE) : UA_NODEID_NUMERIC(ww, 13);
        select[i].browsePathSize = 1;
        select[i].browsePath = &paths[i];
        select[i].attributeId = UA_ATTRIBUTEID_VALUE;
    }
    UA_EventFilter filter;
    UA_EventFilter_init(&filter);
    filter.selectClauses = select;
    filter.selectClausesSize = 5;
    UA_MonitoredItemCreateRequest item;
    UA_MonitoredItemCreateRequest_init(&item);
    item.itemToMonitor.nodeId = UA_NODEID_STRING(machines, const_cast<char *>("m1/Events"));
    item.itemToMonitor.attributeId = UA_ATTRIBUTEID_EVENTNOTIFIER;
    item.monitoringMode = UA_MONITORINGMODE_REPORTING;
    item.requestedParameters.queueSize = 10;
    item.requestedParameters.discardOldest = true;
    item.requestedParameters.filter.encoding = UA_EXTENSIONOBJECT_DECODED;
    item.requestedParameters.filter.content.decoded.data = &filter;
    item.requestedParameters.filter.content.decoded.type = &UA_TYPES[UA_TYPES_EVENTFILTER];
    EventInbox inbox;
    UA_MonitoredItemCreateResult created = onClientThread([&] {
        return UA_Client_MonitoredItems_createEvent(client.client(), subscription.subscriptionId,
            UA_TIMESTAMPSTORETURN_BOTH, item, &inbox, eventArrived, nullptr);
    });
    QCOMPARE(created.statusCode, UA_STATUSCODE_GOOD);

    NotificationsAddV1 notification;
    notification.id = QStringLiteral("Unit 1/Door/42");
    notification.message = QStringLiteral("Door open");
    notification.level = 2;
    target.processData(When, "m1", "src", QVariant::fromValue(notification));
    // The severity follows the category: levels 0, 1 and 3 give OTHER, INFORMATION and ERROR.
    for (const qint32 level : { 0, 1, 3 }) {
        notification.id = QStringLiteral("Level/%1").arg(level);
        notification.level = level;
        target.processData(When, "m1", "src", QVariant::fromValue(notification));
    }

    QElapsedTimer clock;
    clock.start();
    while (inbox.messages.size() < 4 && clock.elapsed() < 5000)
        onClientThread([&] { return UA_Client_run_iterate(client.client(), 20); });
    QCOMPARE(inbox.messages,
        (QStringList { "Unit 1/Door/42 Door open 500 3 [2]", "Level/0 Door open 100 0 [1]",
            "Level/1 Door open 200 2 [1]", "Level/3 Door open 900 5 [1]" }));
    QCOMPARE(client.read("m1/State/Machine/Flags/Warning"), QVariant(true));
}

void TestOpcUaServer::absentOptionalTurnsBad()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(), shared));
    // A machine that supplies its own WwState: the record passes the mapper as it is.
    WwState own;
    own.MachineState = 2;
    WwStateFlags flags;
    flags.Remote = true;
    own.Flags = flags;
    WwStateValues values;
    values.FeedSpeed = 12.5;
    own.Values = values;
    target.processData(When, "m3", "src", QVariant::fromValue(own));

    Client client;
    QCOMPARE(client.connect(QStringLiteral("opc.tcp://localhost:%1").arg(m_port)), UA_STATUSCODE_GOOD);
    QCOMPARE(client.read("m3/State/Machine/Flags/Remote"), QVariant(true));
    QVERIFY(!client.read("m3/State/Machine/Flags/Hold").isValid());
    own.Flags->Remote.reset();
    own.Values.reset();
    target.processData(When, "m3", "src", QVariant::fromValue(own));
    const UA_UInt16 ns = client.namespaceIndex(WwAddressSpace::MachinesUri);
    for (const char *path : { "m3/State/Machine/Flags/Remote", "m3/State/Machine/Values/FeedSpeed" }) {
        UA_ReadValueId item;
        UA_ReadValueId_init(&item);
        item.nodeId = UA_NODEID_STRING(ns, const_cast<char *>(path));
        item.attributeId = UA_ATTRIBUTEID_VALUE;
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.nodesToRead = &item;
        request.nodesToReadSize = 1;
        UA_ReadResponse response = onClientThread([&] { return UA_Client_Service_read(client.client(), request); });
        QCOMPARE(response.resultsSize, size_t(1));
        QCOMPARE(UA_StatusCode_name(response.results[0].status), UA_StatusCode_name(UA_STATUSCODE_BADNODATA));
        UA_ReadResponse_clear(&response);
    }
}

void TestOpcUaServer::portInUseFailsInit()
{
    OpcUaServer first;
    QVariantMap shared;
    QVERIFY(first.init(config(), shared));
    m_log.clear();
    OpcUaServer second;
    QVERIFY(!second.init(config(), shared));
    QCOMPARE(m_log.ofComponent("WARNING"),
        QStringList { m_log.warning(
            QStringLiteral("Can't serve OPC UA: can't listen on port %1: Address already in use").arg(m_port)) });
}

void TestOpcUaServer::malformedUsersFailInit()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(!target.init(config(QVariantMap { { "users", QStringList { "anna:secret", "bert" } } }), shared));
    QCOMPARE(m_log.ofComponent("WARNING"),
        QStringList { m_log.warning("Can't use the settings: users entry 2 is not user:password") });
}

void TestOpcUaServer::unknownPolicyFailsInit()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(!target.init(config(QVariantMap { { "securityPolicies", "Basic128Rsa15" } }), shared));
    QCOMPARE(m_log.ofComponent("WARNING"),
        QStringList { m_log.warning("Can't use the settings: securityPolicies: unknown policy Basic128Rsa15; known are "
                                    "None, Basic256Sha256, Aes128_Sha256_RsaOaep, Aes256_Sha256_RsaPss") });
}

void TestOpcUaServer::passwordFileIsRead()
{
    const QString file = m_dir.path() + QStringLiteral("/passwords");
    QVERIFY(TestSupport::writeFile(file, "# operators\nanna:secret\n\n  bert:pass:word  \n"));
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(QVariantMap { { "passwordFile", file } }), shared));
    QCOMPARE(m_log.ofComponent("INFO"),
        QStringList { m_log.info(QStringLiteral("Serving the machines at %1 (policies None; modes None, Sign, "
                                                "SignAndEncrypt; 2 users)")
                                     .arg(target.endpointUrl())) });
}

void TestOpcUaServer::badPasswordFileFailsInit()
{
    const QString file = m_dir.path() + QStringLiteral("/badpasswords");
    QVERIFY(TestSupport::writeFile(file, "anna:secret\n:nobody\n"));
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(!target.init(config(QVariantMap { { "passwordFile", file } }), shared));
    QVERIFY(
        !target.init(config(QVariantMap { { "passwordFile", QString(file + QStringLiteral(".missing")) } }), shared));
    QCOMPARE(m_log.ofComponent("WARNING"),
        (QStringList { m_log.warning("Can't use the settings: passwordFile entry 2 is not user:password"),
            m_log.warning(QStringLiteral("Can't use the settings: can't read the passwordFile %1.missing: No such "
                                         "file or directory")
                              .arg(file)) }));
}

void TestOpcUaServer::badAllowAnonymousFailsInit()
{
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(!target.init(config(QVariantMap { { "allowAnonymous", "perhaps" } }), shared));
    QVERIFY(!target.init(config(QVariantMap { { "allowAnonymous", "false" } }), shared));
    QCOMPARE(m_log.ofComponent("WARNING"),
        (QStringList { m_log.warning("Can't use the settings: allowAnonymous must be true or false, not \"perhaps\""),
            m_log.warning("Can't use the settings: allowAnonymous is false and no users are configured, so nobody "
                          "could log in") }));
}

void TestOpcUaServer::unreadableCertificateFailsInit()
{
    const QString pki = m_dir.path() + QStringLiteral("/broken");
    QVERIFY(QDir().mkpath(pki + QStringLiteral("/own/certs/cert.der")));
    QVERIFY(QDir().mkpath(pki + QStringLiteral("/own/private")));
    QVERIFY(TestSupport::writeFile(pki + QStringLiteral("/own/private/key.der"), "not a key"));
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(!target.init(config(QVariantMap { { "securityPolicies", "Basic256Sha256" }, { "pki", pki } }), shared));
    const QStringList warnings = m_log.ofComponent("WARNING");
    QCOMPARE(warnings.size(), 1);
    QVERIFY2(warnings.first().startsWith(
                 m_log.warning(QStringLiteral("Can't serve OPC UA: can't read %1/own/certs/cert.der: ").arg(pki))
                     .chopped(1)),
        qPrintable(warnings.first()));
}

void TestOpcUaServer::datasetsBeforeInitAreIgnored()
{
    OpcUaServer target;
    target.processData(When, "m1", "src", statev1(2));
    QCOMPARE(target.machineCount(), 0);
    QVERIFY(target.endpointUrl().isEmpty());
}

void TestOpcUaServer::encryptedLoginWithTrustedCertificate()
{
    UA_String subject[] = { UA_STRING(const_cast<char *>("CN=orvix test client")) };
    UA_String names[] = { UA_STRING(const_cast<char *>("URI:urn:orvix:test:client")) };
    UA_UInt16 keySize = 2048;
    UA_KeyValuePair parameter;
    parameter.key = UA_QUALIFIEDNAME(0, const_cast<char *>("key-size-bits"));
    UA_Variant_setScalar(&parameter.value, &keySize, &UA_TYPES[UA_TYPES_UINT16]);
    UA_KeyValueMap parameters { 1, &parameter };
    UA_ByteString certificate = UA_BYTESTRING_NULL;
    UA_ByteString key = UA_BYTESTRING_NULL;
    UA_Logger logger { silent, nullptr, nullptr };
    QCOMPARE(
        UA_CreateCertificate(&logger, subject, 1, names, 1, UA_CERTIFICATEFORMAT_DER, &parameters, &key, &certificate),
        UA_STATUSCODE_GOOD);
    const QString pki = m_dir.path() + QStringLiteral("/secure");
    const QVariantMap secure { { "securityPolicies", "Basic256Sha256" }, { "securityModes", "SignAndEncrypt" },
        { "users", "anna:secret" }, { "pki", pki } };
    const QString url = QStringLiteral("opc.tcp://localhost:%1").arg(m_port);
    QByteArray serverCertificate;
    {
        OpcUaServer target;
        QVariantMap shared;
        QVERIFY(target.init(config(secure), shared));
        QCOMPARE(m_log.ofComponent("INFO").first(),
            m_log.info(QStringLiteral("Created the own certificate %1/own/certs/cert.der").arg(pki)));
        m_log.clear();
        serverCertificate = TestSupport::readFile(pki + QStringLiteral("/own/certs/cert.der"));
        Client untrusted(certificate, key, serverCertificate);
        QVERIFY(untrusted.login(url, "anna", "secret") != UA_STATUSCODE_GOOD);
        const QStringList rejected = QDir(pki + QStringLiteral("/rejected")).entryList(QDir::Files);
        QCOMPARE(rejected.size(), 1);
        // One attempt, one line.
        QCOMPARE(m_log.ofComponent("INFO").count(m_log.info(
                     QStringLiteral("Refused a client certificate (BadCertificateUntrusted), saved as %1/rejected/%2")
                         .arg(pki, rejected.first()))),
            1);
        QVERIFY(QFile::rename(pki + QStringLiteral("/rejected/") + rejected.first(),
            pki + QStringLiteral("/trusted/") + rejected.first()));
    }
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(secure), shared));
    m_log.clear();
    {
        Client wrong(certificate, key, serverCertificate);
        QCOMPARE(wrong.login(url, "anna", "wrong"), UA_STATUSCODE_BADUSERACCESSDENIED);
        QCOMPARE(m_log.ofComponent("INFO"),
            QStringList { m_log.info(QStringLiteral("Refused the login of user anna (BadUserAccessDenied)")) });
    }
    Client client(certificate, key, serverCertificate);
    QCOMPARE(client.login(url, "anna", "secret"), UA_STATUSCODE_GOOD);
    QCOMPARE(client.read("m1/Identification/SerialNumber"), QVariant("4711"));
    UA_ByteString_clear(&certificate);
    UA_ByteString_clear(&key);
}

void TestOpcUaServer::nodeOpcUaClientBrowsesReadsAndSubscribes()
{
    if (!NodeScript::available())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it into tests/nodeopcua)");
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(), shared));

    NodeScript client;
    client.start(
        ClientScript, { QStringLiteral("opc.tcp://localhost:%1").arg(m_port), m_dir.path() + QStringLiteral("/node") });
    const QJsonObject machines = client.next(QStringLiteral("machines"));
    QCOMPARE(machines.value("machines").toVariant().toStringList(), QStringList { "m1" });
    QCOMPARE(
        machines.value("types").toVariant().toStringList(), QStringList { machines.value("wwMachineType").toString() });
    QCOMPARE(client.next(QStringLiteral("children")).value("children").toVariant().toStringList(),
        (QStringList { "Events", "Identification", "State" }));
    const QVariantMap read = client.next(QStringLiteral("read")).value("read").toObject().toVariantMap();
    QCOMPARE(read.value("Identification/Manufacturer"), QVariant("Acme"));
    QCOMPARE(read.value("Identification/SerialNumber"), QVariant("4711"));
    QCOMPARE(read.value("Identification/YearOfConstruction").toInt(), 2019);
    QCOMPARE(read.value("State/Machine/Overview/CurrentState").toInt(), 0);
    QCOMPARE(read.value("State/Machine/Flags/MachineOn"), QVariant(false));
    QVERIFY(client.next(QStringLiteral("currentStateDataType"))
                .value("currentStateDataType")
                .toString()
                .endsWith(QStringLiteral(";i=21")));
    const QJsonObject subscribed = client.next(QStringLiteral("subscribed"));
    QVERIFY(!subscribed.isEmpty());
    QCOMPARE(client.next(QStringLiteral("MachineOn")).value("MachineOn"), QJsonValue(false));

    target.processData(When, "m1", "src", QVariant::fromValue(WwCapabilities {}));
    target.processData(When, "m1", "src", statev1(2));
    QCOMPARE(client.next(QStringLiteral("MachineOn")).value("MachineOn"), QJsonValue(true));

    NotificationsAddV1 notification;
    notification.id = QStringLiteral("Spindle/7/E-12");
    notification.message = QStringLiteral("Spindle overheated");
    notification.level = 3;
    target.processData(When, "m1", "src", QVariant::fromValue(notification));
    const QJsonObject event = client.next(QStringLiteral("event")).value("event").toObject();
    QCOMPARE(event.value("Message").toString(), QStringLiteral("Spindle overheated"));
    QCOMPARE(event.value("Severity").toInt(), 900);
    QCOMPARE(event.value("EventType").toString(), subscribed.value("wwBaseEventType").toString());
    QCOMPARE(event.value("MessageId").toString(), QStringLiteral("Spindle/7/E-12"));
    QCOMPARE(event.value("EventCategory").toInt(), 5);
    QCOMPARE(event.value("PathParts").toVariant().toStringList(), (QStringList { "Spindle", "7" }));
    QCOMPARE(event.value("LocalizedMessages").toVariant().toStringList(), QStringList { "de:Spindle overheated" });
    QCOMPARE(client.next(QStringLiteral("serverEvent")).value("serverEvent").toObject().value("MessageId"),
        QJsonValue("Spindle/7/E-12"));
}

void TestOpcUaServer::nodeOpcUaClientLogsInEncrypted()
{
    if (!NodeScript::available())
        QSKIP("needs node-opcua (tools/install-deps.sh installs it into tests/nodeopcua)");
    const QString pki = m_dir.path() + QStringLiteral("/nodesecure");
    const QVariantMap secure { { "securityPolicies", "Basic256Sha256" }, { "securityModes", "SignAndEncrypt" },
        { "users", "anna:secret" }, { "pki", pki } };
    const QString url = QStringLiteral("opc.tcp://localhost:%1").arg(m_port);
    const QString clientPki = m_dir.path() + QStringLiteral("/nodeclient");
    {
        OpcUaServer target;
        QVariantMap shared;
        QVERIFY(target.init(config(secure), shared));
        NodeScript untrusted;
        untrusted.start(ClientScript, { url, clientPki, "anna", "secret" });
        QVERIFY(!untrusted.next(QStringLiteral("refused")).isEmpty());
        QCOMPARE(untrusted.exitCode(), 2);
        const QStringList rejected = QDir(pki + QStringLiteral("/rejected")).entryList(QDir::Files);
        QCOMPARE(rejected.size(), 1);
        // One attempt, one line.
        QCOMPARE(m_log.ofComponent("INFO").count(m_log.info(
                     QStringLiteral("Refused a client certificate (BadCertificateUntrusted), saved as %1/rejected/%2")
                         .arg(pki, rejected.first()))),
            1);
        QVERIFY(QFile::rename(pki + QStringLiteral("/rejected/") + rejected.first(),
            pki + QStringLiteral("/trusted/") + rejected.first()));
    }
    OpcUaServer target;
    QVariantMap shared;
    QVERIFY(target.init(config(secure), shared));
    m_log.clear();
    {
        NodeScript wrong;
        wrong.start(ClientScript, { url, clientPki, "anna", "wrong" });
        QVERIFY(!wrong.next(QStringLiteral("refused")).isEmpty());
        QCOMPARE(m_log.ofComponent("INFO"),
            QStringList { m_log.info(QStringLiteral("Refused the login of user anna (BadUserAccessDenied)")) });
    }
    NodeScript client;
    client.start(ClientScript, { url, clientPki, "anna", "secret" });
    QCOMPARE(
        client.next(QStringLiteral("machines")).value("machines").toVariant().toStringList(), QStringList { "m1" });
    QCOMPARE(client.next(QStringLiteral("read")).value("read").toObject().value("Identification/SerialNumber"),
        QJsonValue("4711"));
}

QTEST_GUILESS_MAIN(TestOpcUaServer)
#include "tst_opcuaserver.moc"
