#include "sparkplugstore.h"

#include <QDataStream>
#include <QDir>
#include <QSaveFile>

namespace {

const QString BdSeqFile = QStringLiteral("bdSeq");
const QString CatalogFile = QStringLiteral("catalog");
// Sparkplug counts bdSeq from 0 to 255 and starts again.
constexpr quint32 BdSeqModulus = 256;

} // namespace

SparkplugStore::SparkplugStore(const QString &folder, const QLoggingCategory &category)
    : m_folder(folder)
    , m_category(category)
{
}

bool SparkplugStore::open(QString *error)
{
    QDir dir(m_folder);
    if (!dir.mkpath(QStringLiteral("."))) {
        *error = QStringLiteral("can't make the folder");
        return false;
    }
    QFile bdSeq(dir.filePath(BdSeqFile));
    if (bdSeq.open(QIODevice::ReadOnly)) {
        bool ok = false;
        const quint32 value = bdSeq.readAll().trimmed().toUInt(&ok);
        m_nextBdSeq = ok ? value % BdSeqModulus : 0;
    }

    m_catalog.setFileName(dir.filePath(CatalogFile));
    if (!m_catalog.open(QIODevice::ReadWrite)) {
        *error = m_catalog.errorString();
        return false;
    }
    QDataStream in(&m_catalog);
    in.setVersion(QDataStream::Qt_5_15);
    qint64 good = 0;
    while (!in.atEnd()) {
        QString machine;
        Entry entry;
        in >> machine >> entry.name >> entry.alias >> entry.type;
        if (in.status() != QDataStream::Ok)
            break;
        good = m_catalog.pos();
        QVector<Entry> &entries = m_entries[machine];
        if (entries.isEmpty())
            m_machines.append(machine);
        auto known = std::find_if(
            entries.begin(), entries.end(), [&entry](const Entry &other) { return other.name == entry.name; });
        if (known != entries.end())
            known->type = entry.type;
        else
            entries.append(entry);
        m_nextAlias = qMax(m_nextAlias, entry.alias + 1);
    }
    // A record torn by a power cut is cut off, so that the next ones follow a whole one.
    if (good != m_catalog.size()) {
        qCWarning(m_category) << QStringLiteral("Cutting a torn record off the catalog %1 at byte %2")
                                     .arg(m_catalog.fileName())
                                     .arg(good);
        m_catalog.resize(good);
    }
    m_catalog.seek(good);
    return true;
}

quint32 SparkplugStore::takeBdSeq()
{
    const quint32 current = m_nextBdSeq;
    m_nextBdSeq = (current + 1) % BdSeqModulus;
    QSaveFile file(QDir(m_folder).filePath(BdSeqFile));
    if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray::number(m_nextBdSeq) + '\n') < 0 || !file.commit())
        qCWarning(m_category)
            << QStringLiteral("Can't save the bdSeq in %1: %2").arg(file.fileName(), file.errorString());
    return current;
}

quint64 SparkplugStore::remember(const QString &machine, const QByteArray &name, quint32 type)
{
    QVector<Entry> &entries = m_entries[machine];
    if (entries.isEmpty())
        m_machines.append(machine);
    auto known
        = std::find_if(entries.begin(), entries.end(), [&name](const Entry &entry) { return entry.name == name; });
    if (known != entries.end() && known->type == type)
        return known->alias;
    Entry entry { name, known != entries.end() ? known->alias : m_nextAlias++, type };
    if (known != entries.end())
        known->type = type;
    else
        entries.append(entry);
    QDataStream out(&m_catalog);
    out.setVersion(QDataStream::Qt_5_15);
    out << machine << entry.name << entry.alias << entry.type;
    if (!m_catalog.flush())
        qCWarning(m_category)
            << QStringLiteral("Can't save to the catalog %1: %2").arg(m_catalog.fileName(), m_catalog.errorString());
    return entry.alias;
}
