#include "opcuapki.h"

#include "opcuasupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QSysInfo>

#include <open62541/plugin/create_certificate.h>

namespace {

bool readFile(const QString &path, QByteArray *content, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("can't read %1: %2").arg(path, file.errorString());
        return false;
    }
    *content = file.readAll();
    return true;
}

bool writeFile(const QString &path, const UA_ByteString &content, QFile::Permissions permissions, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || !file.setPermissions(permissions)
        || file.write(reinterpret_cast<const char *>(content.data), qint64(content.length)) != qint64(content.length)) {
        *error = QStringLiteral("can't write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace

OpcUaPki::OpcUaPki(const QString &root, const QLoggingCategory &category)
    : m_root(root)
    , m_category(category)
{
}

bool OpcUaPki::ownCertificate(
    const QString &applicationUri, QByteArray *certificate, QByteArray *key, QString *error) const
{
    const QString certificatePath = m_root + QStringLiteral("/own/certs/cert.der");
    const QString keyPath = m_root + QStringLiteral("/own/private/key.der");
    if (!QDir().mkpath(m_root + QStringLiteral("/own/certs")) || !QDir().mkpath(m_root + QStringLiteral("/own/private"))
        || !QDir().mkpath(m_root + QStringLiteral("/trusted"))
        || !QDir().mkpath(m_root + QStringLiteral("/rejected"))) {
        *error = QStringLiteral("can't create the PKI folder %1").arg(m_root);
        return false;
    }
    if (!QFile::exists(certificatePath) && !QFile::exists(keyPath)) {
        QFile::setPermissions(
            m_root + QStringLiteral("/own/private"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const QByteArray host = QSysInfo::machineHostName().toUtf8();
        const QByteArray commonName = "CN=orvix@" + host;
        const QByteArray dns = "DNS:" + host;
        const QByteArray uri = "URI:" + applicationUri.toUtf8();
        const QByteArray organisation = QByteArrayLiteral("O=orvix");
        UA_String subject[] = { OpcUa::view(organisation), OpcUa::view(commonName) };
        const QByteArray localhost = QByteArrayLiteral("DNS:localhost");
        UA_String alternativeNames[] = { OpcUa::view(dns), OpcUa::view(localhost), OpcUa::view(uri) };
        UA_UInt16 keySize = 2048;
        UA_UInt16 days = 3650;
        UA_KeyValuePair parameters[2];
        parameters[0].key = UA_QUALIFIEDNAME(0, const_cast<char *>("key-size-bits"));
        UA_Variant_setScalar(&parameters[0].value, &keySize, &UA_TYPES[UA_TYPES_UINT16]);
        parameters[1].key = UA_QUALIFIEDNAME(0, const_cast<char *>("expires-in-days"));
        UA_Variant_setScalar(&parameters[1].value, &days, &UA_TYPES[UA_TYPES_UINT16]);
        UA_KeyValueMap map { 2, parameters };
        UA_Logger *logger = OpcUa::newLogger(m_category);
        UA_ByteString newKey = UA_BYTESTRING_NULL;
        UA_ByteString newCertificate = UA_BYTESTRING_NULL;
        const UA_StatusCode status = UA_CreateCertificate(
            logger, subject, 2, alternativeNames, 3, UA_CERTIFICATEFORMAT_DER, &map, &newKey, &newCertificate);
        logger->clear(logger);
        const bool written = status == UA_STATUSCODE_GOOD
            && writeFile(keyPath, newKey, QFile::ReadOwner | QFile::WriteOwner, error)
            && writeFile(certificatePath, newCertificate,
                QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther, error);
        UA_ByteString_clear(&newKey);
        UA_ByteString_clear(&newCertificate);
        if (status != UA_STATUSCODE_GOOD) {
            *error = QStringLiteral("can't create the own certificate (%1)").arg(OpcUa::statusName(status));
            return false;
        }
        if (!written)
            return false;
        QMessageLogger(nullptr, 0, nullptr, m_category.categoryName()).info()
            << QStringLiteral("Created the own certificate %1").arg(certificatePath);
    }
    return readFile(certificatePath, certificate, error) && readFile(keyPath, key, error);
}

bool OpcUaPki::credentials(const QString &applicationUri, Credentials *credentials, QString *error) const
{
    return ownCertificate(applicationUri, &credentials->certificate, &credentials->key, error)
        && trusted(&credentials->trusted, error);
}

bool OpcUaPki::trusted(QList<QByteArray> *certificates, QString *error) const
{
    const QString folder = m_root + QStringLiteral("/trusted");
    const QStringList files = QDir(folder).entryList(QDir::Files, QDir::Name);
    for (const QString &name : files) {
        QByteArray bytes;
        if (!readFile(folder + QLatin1Char('/') + name, &bytes, error))
            return false;
        certificates->append(bytes);
    }
    return true;
}

bool OpcUaPki::isTrusted(const QByteArray &certificate) const
{
    QList<QByteArray> certificates;
    QString ignored;
    trusted(&certificates, &ignored);
    return certificates.contains(certificate);
}

QString OpcUaPki::reject(const QByteArray &certificate, QString *error) const
{
    QDir().mkpath(m_root + QStringLiteral("/rejected"));
    const QString path = m_root + QStringLiteral("/rejected/")
        + QString::fromLatin1(QCryptographicHash::hash(certificate, QCryptographicHash::Sha1).toHex())
        + QStringLiteral(".der");
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(certificate) != certificate.size()) {
        *error = file.errorString();
        return QString();
    }
    return path;
}
