#include "isolatedservice.h"
#include "testsupport.h"

#include <QtTest>

#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>

namespace {

QString text(const UA_String &value)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(value.data), int(value.length));
}

/** A client of the service's server; the service is another process, so the calls may block. */
class Client
{
public:
    Client()
        : m_client(UA_Client_new())
    {
        UA_ClientConfig_setDefault(UA_Client_getConfig(m_client));
        UA_Client_getConfig(m_client)->logging->log = nullptr;
    }
    ~Client()
    {
        UA_Client_disconnect(m_client);
        UA_Client_delete(m_client);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool connect(quint16 port)
    {
        const QByteArray url = QStringLiteral("opc.tcp://127.0.0.1:%1").arg(port).toUtf8();
        if (UA_Client_connect(m_client, url.constData()) != UA_STATUSCODE_GOOD)
            return false;
        UA_String uri = UA_STRING(const_cast<char *>("urn:orvix:opcuaServer:machines"));
        UA_String machinery = UA_STRING(const_cast<char *>("http://opcfoundation.org/UA/Machinery/"));
        return UA_Client_NamespaceGetIndex(m_client, &uri, &m_machines) == UA_STATUSCODE_GOOD
            && UA_Client_NamespaceGetIndex(m_client, &machinery, &m_machinery) == UA_STATUSCODE_GOOD;
    }

    /** The machines in the Machines folder, sorted. */
    QStringList machines()
    {
        UA_BrowseDescription description;
        UA_BrowseDescription_init(&description);
        description.nodeId = UA_NODEID_NUMERIC(m_machinery, 1001);
        description.browseDirection = UA_BROWSEDIRECTION_FORWARD;
        description.referenceTypeId = UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES);
        description.resultMask = UA_BROWSERESULTMASK_BROWSENAME;
        UA_BrowseRequest request;
        UA_BrowseRequest_init(&request);
        request.nodesToBrowse = &description;
        request.nodesToBrowseSize = 1;
        UA_BrowseResponse response = UA_Client_Service_browse(m_client, request);
        QStringList names;
        for (size_t i = 0; i < response.resultsSize; ++i)
            for (size_t j = 0; j < response.results[i].referencesSize; ++j)
                names << text(response.results[i].references[j].browseName.name);
        UA_BrowseResponse_clear(&response);
        names.sort();
        return names;
    }

    /** The value at the node id path as text; empty when it can't be read. */
    QString read(const QString &path)
    {
        const QByteArray id = path.toUtf8();
        UA_Variant value;
        UA_Variant_init(&value);
        QString result;
        if (UA_Client_readValueAttribute(
                m_client, UA_NODEID_STRING(m_machines, const_cast<char *>(id.constData())), &value)
                == UA_STATUSCODE_GOOD
            && UA_Variant_isScalar(&value)) {
            if (value.type == &UA_TYPES[UA_TYPES_LOCALIZEDTEXT])
                result = text(static_cast<UA_LocalizedText *>(value.data)->text);
            else if (value.type == &UA_TYPES[UA_TYPES_STRING])
                result = text(*static_cast<UA_String *>(value.data));
            else if (value.type == &UA_TYPES[UA_TYPES_INT32])
                result = QString::number(*static_cast<UA_Int32 *>(value.data));
        }
        UA_Variant_clear(&value);
        return result;
    }

private:
    UA_Client *m_client;
    UA_UInt16 m_machines = 0;
    UA_UInt16 m_machinery = 0;
};

} // namespace

/**
 * The simulator in the real service, through the whole chain into the opcuaServer target: a client finds the
 * configured machine with its nameplate from orvix.ini at once, and every simulated machine with its state once the
 * mapper has given up waiting for capabilities (30 seconds after a machine's first dataset).
 */
class tst_OpcUaServerRun : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void simulatedMachinesAreServed();
};

void tst_OpcUaServerRun::initTestCase()
{
    if (!IsolatedService::available())
        QSKIP("needs root and unshare for a private mount namespace");
}

void tst_OpcUaServerRun::simulatedMachinesAreServed()
{
    IsolatedService service;
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libsimulator.so", service.pluginDir() + "/libsimulator.so"));
    QVERIFY(QFile::copy(ORVIX_PLUGIN_BUILD_DIR "/libopcuaserver.so", service.pluginDir() + "/libopcuaserver.so"));
    const quint16 port = TestSupport::freePort();
    service.writeConfig(QStringLiteral("[core]\n"
                                       "log=\"*.debug=false\"\n"
                                       "[simulator]\n"
                                       "machines=2\n"
                                       "interval=200\n"
                                       "seed=11\n"
                                       "[limit]\n"
                                       "waitTime=200\n"
                                       "keepAliveTime=1000\n"
                                       "[opcuaServerTarget]\n"
                                       "port=%1\n"
                                       "securityPolicies=None\n"
                                       "pki=/var/log/orvix/pki\n"
                                       "[opcuawwcsidentification]\n"
                                       "sim1/locale=de\n"
                                       "sim1/ProductInstanceUri=urn:example:sim1\n"
                                       "sim1/Manufacturer=Acme\n"
                                       "sim1/Model=EB 200\n"
                                       "sim1/DeviceClass=EdgeBander\n"
                                       "sim1/SerialNumber=4711\n"
                                       "sim1/YearOfConstruction=2019\n"
                                       "sim1/MonthOfConstruction=7\n"
                                       "sim1/InitialOperationDate=2021-03-04 05:06:07\n")
                            .arg(port)
                            .toUtf8());
    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(service.logLines().filter(QStringLiteral("Serving the machines at")).size() == 1, 20000);

    Client client;
    QVERIFY(client.connect(port));
    QCOMPARE(client.machines(), QStringList { "sim1" });
    QCOMPARE(client.read(QStringLiteral("sim1/Identification/Manufacturer")), QStringLiteral("Acme"));
    QCOMPARE(client.read(QStringLiteral("sim1/State/Machine/Overview/CurrentState")), QStringLiteral("0"));

    QTRY_COMPARE_WITH_TIMEOUT(client.machines(), (QStringList { "sim1", "sim2" }), 60000);
    QTRY_VERIFY_WITH_TIMEOUT(
        client.read(QStringLiteral("sim2/State/Machine/Overview/CurrentState")).toInt() > 0, 10000);
    service.stop();

    QStringList problems;
    for (const QString &line : service.logLines()) {
        if (!line.startsWith(QLatin1String("INFO")) && !line.startsWith(QLatin1String("DEBUG")))
            problems.append(line);
    }
    QCOMPARE(problems, QStringList());
}

QTEST_GUILESS_MAIN(tst_OpcUaServerRun)
#include "tst_opcuaserverrun.moc"
