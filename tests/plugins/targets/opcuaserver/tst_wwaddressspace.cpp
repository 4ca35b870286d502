#include "wwaddressspace.h"

#include "logcapture.h"
#include "wwtypes.h"

#include <QtTest>

#include <memory>

#include <open62541/server.h>
#include <open62541/server_config_default.h>

namespace {

WwState running(quint32 machineState)
{
    WwState state;
    state.MachineState = machineState;
    state.OperationMode = 1;
    return state;
}

} // namespace

/**
 * The address space on a server of its own that never listens: what the library refuses is warned of, naming the node
 * and the status, once per node, and the machines go on.
 */
class tst_WwAddressSpace : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void refusedObjectIsWarned();
    void refusedWriteIsWarnedOnce();
    void refusedVariableIsTriedAgain();

private:
    /** Removes a node of the machines namespace behind the address space's back. */
    void removeNode(const char *path);
    /** Reads the value of a node of the machines namespace. */
    UA_StatusCode readNode(const char *path, UA_Variant *value);

    LogCapture m_log { QStringLiteral("opcuaServer") };
    UA_Server *m_server = nullptr;
    std::unique_ptr<WwAddressSpace> m_space;
};

void tst_WwAddressSpace::init()
{
    m_server = UA_Server_new();
    m_space = std::make_unique<WwAddressSpace>(m_server);
    QString error;
    QVERIFY2(m_space->build(&error), qPrintable(error));
    m_log.start();
}

void tst_WwAddressSpace::cleanup()
{
    m_log.stop();
    // The server keeps pointers into the address space, so it goes first.
    UA_Server_delete(m_server);
    m_space.reset();
}

void tst_WwAddressSpace::removeNode(const char *path)
{
    QCOMPARE(UA_StatusCode_name(UA_Server_deleteNode(
                 m_server, UA_NODEID_STRING(m_space->machinesNamespace(), const_cast<char *>(path)), true)),
        UA_StatusCode_name(UA_STATUSCODE_GOOD));
}

UA_StatusCode tst_WwAddressSpace::readNode(const char *path, UA_Variant *value)
{
    return UA_Server_readValue(
        m_server, UA_NODEID_STRING(m_space->machinesNamespace(), const_cast<char *>(path)), value);
}

void tst_WwAddressSpace::refusedObjectIsWarned()
{
    m_space->updateState(QStringLiteral("m1"), running(2));
    QCOMPARE(m_log.lines(), QStringList());
    // The name of this machine is the node id of m1's State object.
    m_space->updateState(QStringLiteral("m1/State"), running(3));
    QVERIFY2(m_log.lines().contains(m_log.warning(
                 "Could not add the node m1/State to the address space (BadNodeIdExists); its data is not served")),
        qPrintable(m_log.lines().join('\n')));
    // m1 is served as before.
    UA_Variant value;
    QCOMPARE(readNode("m1/State/Machine/Overview/CurrentState", &value), UA_STATUSCODE_GOOD);
    QCOMPARE(*static_cast<UA_Int32 *>(value.data), 2);
    UA_Variant_clear(&value);
}

void tst_WwAddressSpace::refusedWriteIsWarnedOnce()
{
    m_space->updateState(QStringLiteral("m2"), running(2));
    removeNode("m2/State/Machine/Overview/CurrentState");
    m_space->updateState(QStringLiteral("m2"), running(3));
    const QString refused = m_log.warning("Could not write the node m2/State/Machine/Overview/CurrentState "
                                          "(BadNodeIdUnknown); clients see its last value");
    QCOMPARE(m_log.lines(), QStringList { refused });
    m_space->updateState(QStringLiteral("m2"), running(4));
    QCOMPARE(m_log.lines(), QStringList { refused });
    // The machine's other nodes are written as before.
    UA_Variant value;
    QCOMPARE(readNode("m2/State/Machine/Overview/CurrentMode", &value), UA_STATUSCODE_GOOD);
    UA_Variant_clear(&value);
}

void tst_WwAddressSpace::refusedVariableIsTriedAgain()
{
    m_space->updateState(QStringLiteral("m3"), running(2));
    removeNode("m3/State/Machine/Flags");
    WwState state = running(2);
    state.Flags.emplace();
    state.Flags->MachineOn = true;
    m_space->updateState(QStringLiteral("m3"), state);
    const QString refused
        = m_log.warning("Could not add the node m3/State/Machine/Flags/MachineOn to the address space "
                        "(BadParentNodeIdInvalid); its data is not served");
    QVERIFY2(m_log.lines().contains(refused), qPrintable(m_log.lines().join('\n')));
    const int warnings = m_log.lines().size();
    QCOMPARE(m_log.lines().count(refused), 1);

    // Once the folder is back, the next update adds the flag after all, without a further warning.
    UA_ObjectAttributes folder = UA_ObjectAttributes_default;
    QCOMPARE(UA_Server_addObjectNode(m_server,
                 UA_NODEID_STRING(m_space->machinesNamespace(), const_cast<char *>("m3/State/Machine/Flags")),
                 UA_NODEID_STRING(m_space->machinesNamespace(), const_cast<char *>("m3/State/Machine")),
                 UA_NODEID_NUMERIC(0, UA_NS0ID_HASCOMPONENT), UA_QUALIFIEDNAME(1, const_cast<char *>("Flags")),
                 UA_NODEID_NUMERIC(0, UA_NS0ID_BASEOBJECTTYPE), folder, nullptr, nullptr),
        UA_STATUSCODE_GOOD);
    state.Flags->MachineOn = false;
    m_space->updateState(QStringLiteral("m3"), state);
    QCOMPARE(m_log.lines().size(), warnings);
    UA_Variant value;
    QCOMPARE(readNode("m3/State/Machine/Flags/MachineOn", &value), UA_STATUSCODE_GOOD);
    QCOMPARE(*static_cast<UA_Boolean *>(value.data), false);
    UA_Variant_clear(&value);
}

QTEST_GUILESS_MAIN(tst_WwAddressSpace)
#include "tst_wwaddressspace.moc"
