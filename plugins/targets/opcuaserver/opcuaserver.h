#ifndef ORVIX_OPCUASERVER_H
#define ORVIX_OPCUASERVER_H

#include "itarget.h"
#include "mmtoopcuamapper.h"
#include "settingstable.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVector>

#include <memory>
#include <optional>

class OpcUaServerHost;
class WwAddressSpace;

/**
 * A target that serves every machine as a woodworking machine to OPC UA clients: its own MmToOpcUaMapper turns the
 * datasets into the records of the woodworking model, and each record updates the machine's object in the address
 * space of an open62541 server that runs inside the event loop.
 */
class OpcUaServer : public QObject, public ITarget
{
    Q_OBJECT
    Q_INTERFACES(ITarget)
public:
    /** What the group opcuaServerTarget says. */
    struct Options
    {
        quint16 port = 0;
        QString endpointPath;
        QStringList securityPolicies;
        QStringList securityModes;
        /** user:password entries. */
        QStringList users;
        QString passwordFile;
        /** None: anonymous clients are let in exactly when there are no logins. */
        std::optional<bool> allowAnonymous;
        QString pki;
    };

    /** Every key of the group opcuaServerTarget, in the order its sample.ini documents them. */
    static const SettingsTable<Options> &settings();

    explicit OpcUaServer(QObject *parent = nullptr);
    ~OpcUaServer() override;

    /** Checks the settings, starts the server and the mapper; false when it can't serve. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    /** "opcuaServer". */
    QString name() const override;

    /** The mapper, for tests that shorten its timeouts before init. */
    MmToOpcUaMapper &mapper() { return m_mapper; }
    /** The endpoint URL clients connect to; empty before init succeeded. */
    QString endpointUrl() const;
    /** Machines that have an object in the address space. */
    int machineCount() const;

public slots:
    /** Hands the dataset to the mapper; the records it makes update the address space. */
    void processData(QDateTime timestamp, QString machine, QString source, QVariant data);

private:
    void publish(const QDateTime &timestamp, const QString &machine, const QVariant &data);

    MmToOpcUaMapper m_mapper;
    std::unique_ptr<OpcUaServerHost> m_host;
    std::unique_ptr<WwAddressSpace> m_space;
};

#endif
