#ifndef ORVIX_XMLOVERWRITE_H
#define ORVIX_XMLOVERWRITE_H

#include "iprocessor.h"

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>

class QXmlStreamReader;

/**
 * Replaces the comments of maintenance items with the texts of each machine's XML comment file, named in the
 * configuration group "xmlOverwrite".
 */
class XmlOverwrite : public QObject, public IProcessor
{
    Q_OBJECT
    Q_INTERFACES(IProcessor)
public:
    explicit XmlOverwrite(QObject *parent = nullptr);

    /** Reads the comment file of every machine in the group "xmlOverwrite"; always succeeds. */
    bool init(const QVariantMap &config, QVariantMap &shared) override;
    QString name() const override;
    unsigned int orderNumber() const override;

signals:
    void dataProcessed(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

public slots:
    /** Sets the stored comments in maintenance definition lists; passes everything else on unchanged. */
    void processData(const QDateTime &timestamp, const QString &machine, const QString &source, const QVariant &data);

private:
    using Comments = QHash<QString, QString>;

    void readFile(const QString &machine, const QString &path);
    static void readComponent(QXmlStreamReader &reader, const QString &id, Comments &comments);

    QHash<QString, Comments> m_comments;
    const int m_maintenanceDefinitionsType;
};

#endif
