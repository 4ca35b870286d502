#ifndef ORVIX_OPCUAPKI_H
#define ORVIX_OPCUAPKI_H

#include <QByteArray>
#include <QList>
#include <QLoggingCategory>
#include <QString>

/**
 * The certificate folder of an OPC UA application as such applications usually keep it: own/certs/cert.der with its
 * key in own/private/key.der (made at first use), trusted/ for the certificates of peers that an administrator
 * trusts, and rejected/ where a refused peer's certificate is saved, so that trusting it is moving one file.
 */
class OpcUaPki
{
public:
    /** The folder root; log lines (a certificate made) go to category. */
    OpcUaPki(const QString &root, const QLoggingCategory &category);

    /** What a client's or a server's configuration needs for security, each certificate and key in DER. */
    struct Credentials
    {
        QByteArray certificate;
        QByteArray key;
        QList<QByteArray> trusted;
    };

    QString root() const { return m_root; }

    /** ownCertificate() and trusted() together; false with a sentence in *error when either fails. */
    bool credentials(const QString &applicationUri, Credentials *credentials, QString *error) const;

    /**
     * The own certificate and key in DER, made with applicationUri in the certificate when none exists yet, and the
     * folders trusted/ and rejected/; false with a sentence in *error when they can't be made or read.
     */
    bool ownCertificate(const QString &applicationUri, QByteArray *certificate, QByteArray *key, QString *error) const;
    /** The certificates in trusted/, each file as it is; false with a sentence in *error when one can't be read. */
    bool trusted(QList<QByteArray> *certificates, QString *error) const;
    /** Whether certificate is, byte for byte, one of the files in trusted/. */
    bool isTrusted(const QByteArray &certificate) const;
    /**
     * Saves a refused certificate in rejected/ under its SHA-1 thumbprint and returns the file's path; an empty
     * path with the reason in *error when it can't be saved.
     */
    QString reject(const QByteArray &certificate, QString *error) const;

private:
    QString m_root;
    const QLoggingCategory &m_category;
};

#endif
