#include "mqttspool.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QtEndian>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

namespace {

// A record: u32 body length, u32 CRC-32 of the body, both little-endian, then the body:
// u8 flags (bit 0: retain), u16 topic length, the topic, the payload.
constexpr qint64 HeaderBytes = 8;
constexpr qint64 BodyPrefixBytes = 3;
constexpr quint32 MaxBodyBytes = 256 * 1024 * 1024;
constexpr qint64 ReadChunkBytes = 64 * 1024;
constexpr int SyncIntervalMs = 1000;
const QString HeadFileName = QStringLiteral("head");
const QString SegmentSuffix = QStringLiteral(".seg");

// zlib's CRC-32, the one QtCore links anyway; records are at most MaxBodyBytes, well within its length type.
quint32 crc32Of(const char *data, qint64 size)
{
    return quint32(::crc32(::crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef *>(data), uInt(size)));
}

QString segmentName(quint64 first)
{
    return QStringLiteral("%1").arg(first, 16, 16, QLatin1Char('0')) + SegmentSuffix;
}

bool parseSegmentName(const QString &name, quint64 *first)
{
    if (name.size() != 16 + SegmentSuffix.size() || !name.endsWith(SegmentSuffix))
        return false;
    bool ok = false;
    *first = name.left(16).toULongLong(&ok, 16);
    return ok;
}

} // namespace

MqttSpool::MqttSpool(const QString &folder, qint64 maxBytes, const QLoggingCategory &category, QObject *parent)
    : QObject(parent)
    , m_folder(folder)
    , m_maxBytes(maxBytes)
    , m_segmentBytes(segmentBytes(maxBytes))
    , m_category(category)
{
    m_syncTimer.setInterval(SyncIntervalMs);
    connect(&m_syncTimer, &QTimer::timeout, this, &MqttSpool::sync);
}

MqttSpool::~MqttSpool()
{
    sync();
}

qint64 MqttSpool::segmentBytes(qint64 maxBytes)
{
    return qBound<qint64>(4096, maxBytes / 16, 4 * 1024 * 1024);
}

QString MqttSpool::segmentPath(quint64 first) const
{
    return m_folder + QLatin1Char('/') + segmentName(first);
}

bool MqttSpool::open(QString *error)
{
    if (!QDir().mkpath(m_folder)) {
        *error = QStringLiteral("can't create the folder");
        return false;
    }
    const QFileInfo folderInfo(m_folder);
    if (!folderInfo.isDir() || !folderInfo.isWritable()) {
        *error = QStringLiteral("the folder is not writable");
        return false;
    }
    QFile headFile(m_folder + QLatin1Char('/') + HeadFileName);
    quint64 savedHead = 0;
    if (headFile.open(QIODevice::ReadOnly))
        savedHead = headFile.readAll().trimmed().toULongLong();

    const QStringList names = QDir(m_folder).entryList({ QLatin1Char('*') + SegmentSuffix }, QDir::Files, QDir::Name);
    for (const QString &name : names) {
        Segment segment;
        if (!parseSegmentName(name, &segment.first))
            continue;
        qint64 goodBytes = 0;
        if (!scan(&segment, &goodBytes, error))
            return false;
        const QString path = segmentPath(segment.first);
        const qint64 fileBytes = QFileInfo(path).size();
        if (goodBytes < fileBytes) {
            qCWarning(m_category) << QStringLiteral("Spool file %1 is damaged at byte %2; %3 bytes after it dropped")
                                         .arg(path)
                                         .arg(goodBytes)
                                         .arg(fileBytes - goodBytes);
            QFile::resize(path, goodBytes);
        }
        segment.bytes = goodBytes;
        // Fully delivered before the last run ended, or never written to.
        if (segment.first + quint64(segment.count) <= savedHead || segment.count == 0) {
            QFile::remove(path);
            continue;
        }
        // Sequence numbers run on without gaps from one segment to the next, even after a damaged one was cut.
        if (!m_segments.empty()) {
            const quint64 expected = m_segments.back().first + quint64(m_segments.back().count);
            if (segment.first != expected) {
                if (!QFile::rename(path, segmentPath(expected))) {
                    *error = QStringLiteral("can't rename %1").arg(path);
                    return false;
                }
                segment.first = expected;
            }
        }
        m_segments.push_back(segment);
        m_totalBytes += segment.bytes;
    }

    if (m_segments.empty()) {
        m_next = savedHead;
        m_head = savedHead;
        m_headOffset = 0;
        if (!startSegment(m_next, error))
            return false;
    } else {
        const Segment &front = m_segments.front();
        const Segment &back = m_segments.back();
        m_next = back.first + quint64(back.count);
        m_head = qMax(savedHead, front.first);
        m_headOffset = offsetOf(front, qint64(m_head - front.first));
        if (back.bytes + HeaderBytes + BodyPrefixBytes >= m_segmentBytes) {
            if (!startSegment(m_next, error))
                return false;
        } else {
            m_writeFile.setFileName(segmentPath(back.first));
            if (!m_writeFile.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
                *error = QStringLiteral("can't open %1: %2").arg(m_writeFile.fileName(), m_writeFile.errorString());
                return false;
            }
        }
    }
    m_savedHead = m_head;
    m_send = m_head;
    m_sendOffset = m_headOffset;
    m_syncTimer.start();
    return true;
}

bool MqttSpool::scan(Segment *segment, qint64 *goodBytes, QString *error) const
{
    QFile file(segmentPath(segment->first));
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("can't read %1: %2").arg(file.fileName(), file.errorString());
        return false;
    }
    segment->count = 0;
    *goodBytes = 0;
    QByteArray buffer;
    qint64 bufferOffset = 0;
    for (;;) {
        const qint64 at = *goodBytes - bufferOffset;
        if (buffer.size() - at < HeaderBytes) {
            buffer = buffer.mid(int(at)) + file.read(ReadChunkBytes);
            bufferOffset = *goodBytes;
            if (buffer.size() < HeaderBytes)
                return true;
            continue;
        }
        const quint32 length = qFromLittleEndian<quint32>(buffer.constData() + at);
        if (length < BodyPrefixBytes || length > MaxBodyBytes)
            return true;
        if (buffer.size() - at < HeaderBytes + length) {
            const QByteArray more = file.read(HeaderBytes + length - (buffer.size() - at));
            if (more.isEmpty())
                return true;
            buffer = buffer.mid(int(at)) + more;
            bufferOffset = *goodBytes;
            continue;
        }
        const char *body = buffer.constData() + at + HeaderBytes;
        const quint16 topicLength = qFromLittleEndian<quint16>(body + 1);
        if (qFromLittleEndian<quint32>(buffer.constData() + at + 4) != crc32Of(body, length)
            || topicLength > length - BodyPrefixBytes)
            return true;
        *goodBytes += HeaderBytes + length;
        ++segment->count;
    }
}

qint64 MqttSpool::offsetOf(const Segment &segment, qint64 index) const
{
    QFile file(segmentPath(segment.first));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    qint64 offset = 0;
    for (qint64 i = 0; i < index; ++i) {
        if (!file.seek(offset))
            break;
        const QByteArray header = file.read(HeaderBytes);
        if (header.size() < HeaderBytes)
            break;
        offset += HeaderBytes + qFromLittleEndian<quint32>(header.constData());
    }
    return offset;
}

bool MqttSpool::startSegment(quint64 first, QString *error)
{
    if (m_writeFile.isOpen()) {
        ::fdatasync(m_writeFile.handle());
        m_writeFile.close();
    }
    m_dataDirty = false;
    m_writeFile.setFileName(segmentPath(first));
    if (!m_writeFile.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        *error = QStringLiteral("can't create %1: %2").arg(m_writeFile.fileName(), m_writeFile.errorString());
        return false;
    }
    syncFolder();
    Segment segment;
    segment.first = first;
    m_segments.push_back(segment);
    return true;
}

bool MqttSpool::append(const QByteArray &topic, const QByteArray &payload, bool retain, qint64 *dropped, QString *error)
{
    *dropped = 0;
    const qint64 body = BodyPrefixBytes + topic.size() + payload.size();
    const qint64 recordBytes = HeaderBytes + body;
    if (recordBytes > m_maxBytes || body > MaxBodyBytes || topic.size() > 0xFFFF) {
        *error = QStringLiteral("a record of %1 bytes does not fit into a spool of %2 bytes")
                     .arg(recordBytes)
                     .arg(m_maxBytes);
        return false;
    }
    while (count() > 0 && bytes() + recordBytes > m_maxBytes)
        dropOldestSegment(dropped);
    if (m_segments.empty() || !m_writeFile.isOpen()) {
        if (!startSegment(m_next, error))
            return false;
    } else if (m_segments.back().bytes > 0 && m_segments.back().bytes + recordBytes > m_segmentBytes) {
        if (!startSegment(m_next, error))
            return false;
        // The segment just closed may hold nothing undelivered any more.
        while (m_segments.size() > 1 && m_head >= m_segments.front().first + quint64(m_segments.front().count)) {
            removeFront();
            m_headOffset = 0;
        }
    }

    m_frame.resize(int(recordBytes));
    char *frame = m_frame.data();
    qToLittleEndian<quint32>(quint32(body), frame);
    frame[HeaderBytes] = char(retain ? 1 : 0);
    qToLittleEndian<quint16>(quint16(topic.size()), frame + HeaderBytes + 1);
    memcpy(frame + HeaderBytes + BodyPrefixBytes, topic.constData(), size_t(topic.size()));
    memcpy(frame + HeaderBytes + BodyPrefixBytes + topic.size(), payload.constData(), size_t(payload.size()));
    qToLittleEndian<quint32>(crc32Of(frame + HeaderBytes, body), frame + 4);

    Segment &active = m_segments.back();
    // One write per record: a killed process leaves whole records, and a torn one only when the machine stops.
    if (m_writeFile.write(m_frame) != recordBytes) {
        *error = QStringLiteral("can't write to %1: %2").arg(m_writeFile.fileName(), m_writeFile.errorString());
        m_writeFile.resize(active.bytes);
        return false;
    }
    active.bytes += recordBytes;
    ++active.count;
    m_totalBytes += recordBytes;
    ++m_next;
    m_dataDirty = true;
    return true;
}

void MqttSpool::dropOldestSegment(qint64 *dropped)
{
    const quint64 oldHead = m_head;
    const Segment front = m_segments.front();
    if (m_segments.size() > 1) {
        *dropped += qint64(front.first + quint64(front.count) - m_head);
        removeFront();
        m_head = m_segments.front().first;
    } else {
        *dropped += qint64(m_next - m_head);
        removeFront();
        m_head = m_next;
    }
    m_headOffset = 0;
    // The records handed out from the dropped part will not come back; acknowledgements for them are ignored.
    const quint64 skipped = m_head - oldHead;
    if (skipped >= m_handed.size())
        m_handed.clear();
    else
        m_handed.erase(m_handed.begin(), m_handed.begin() + qint64(skipped));
    followHead();
}

void MqttSpool::removeFront()
{
    const Segment front = m_segments.front();
    if (m_readFile.isOpen() && m_readSegment == front.first)
        m_readFile.close();
    if (m_segments.size() == 1 && m_writeFile.isOpen())
        m_writeFile.close();
    QFile::remove(segmentPath(front.first));
    m_totalBytes -= front.bytes;
    m_segments.pop_front();
}

const MqttSpool::Segment *MqttSpool::segmentOf(quint64 sequence) const
{
    for (const Segment &candidate : m_segments) {
        if (sequence >= candidate.first && sequence < candidate.first + quint64(candidate.count))
            return &candidate;
    }
    return nullptr;
}

bool MqttSpool::next(Record *record)
{
    // Records acknowledged after they were handed out, but before a rewind() behind them, have reached the broker:
    // they are passed over, not sent twice.
    while (m_send < m_next && m_send - m_head < m_handed.size() && m_handed[size_t(m_send - m_head)].acknowledged) {
        const Segment *segment = segmentOf(m_send);
        if (!segment)
            return false;
        if (m_send == segment->first)
            m_sendOffset = 0;
        m_sendOffset += m_handed[size_t(m_send - m_head)].bytes;
        ++m_send;
    }
    if (m_send >= m_next)
        return false;
    const Segment *segment = segmentOf(m_send);
    if (!segment)
        return false;
    if (m_send == segment->first)
        m_sendOffset = 0;
    qint64 size = 0;
    if (!readRecord(*segment, m_sendOffset, record, &size)) {
        qCWarning(m_category)
            << QStringLiteral("Can't read spool file %1 at byte %2").arg(segmentPath(segment->first)).arg(m_sendOffset);
        return false;
    }
    record->sequence = m_send;
    // A record handed out again after a rewind() keeps its place among the handed ones.
    if (m_send - m_head >= m_handed.size()) {
        Handed handed;
        handed.bytes = size;
        m_handed.push_back(handed);
    }
    ++m_send;
    m_sendOffset += size;
    return true;
}

bool MqttSpool::readRecord(const Segment &segment, qint64 offset, Record *record, qint64 *size)
{
    if (!m_readFile.isOpen() || m_readSegment != segment.first) {
        m_readFile.close();
        m_readFile.setFileName(segmentPath(segment.first));
        if (!m_readFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
            return false;
        m_readSegment = segment.first;
        m_readBuffer.clear();
        m_readBufferOffset = 0;
    }
    // Makes bytes [offset, offset + wanted) available in the buffer, reading ahead a chunk.
    const auto ensure = [this, offset](qint64 wanted) {
        if (offset >= m_readBufferOffset && offset + wanted <= m_readBufferOffset + m_readBuffer.size())
            return true;
        if (!m_readFile.seek(offset))
            return false;
        m_readBuffer = m_readFile.read(qMax(wanted, ReadChunkBytes));
        m_readBufferOffset = offset;
        return m_readBuffer.size() >= wanted;
    };
    if (!ensure(HeaderBytes))
        return false;
    const quint32 length = qFromLittleEndian<quint32>(m_readBuffer.constData() + (offset - m_readBufferOffset));
    if (length < BodyPrefixBytes || length > MaxBodyBytes || !ensure(HeaderBytes + length))
        return false;
    const char *body = m_readBuffer.constData() + (offset - m_readBufferOffset) + HeaderBytes;
    const quint16 topicLength = qFromLittleEndian<quint16>(body + 1);
    if (topicLength > length - BodyPrefixBytes)
        return false;
    record->retain = (body[0] & 1) != 0;
    record->topic = QByteArray(body + BodyPrefixBytes, topicLength);
    record->payload = QByteArray(body + BodyPrefixBytes + topicLength, int(length - BodyPrefixBytes - topicLength));
    *size = HeaderBytes + length;
    return true;
}

void MqttSpool::acknowledge(quint64 sequence)
{
    if (sequence < m_head || sequence - m_head >= m_handed.size())
        return;
    m_handed[size_t(sequence - m_head)].acknowledged = true;
    advanceHead();
}

void MqttSpool::advanceHead()
{
    while (!m_handed.empty() && m_handed.front().acknowledged) {
        m_headOffset += m_handed.front().bytes;
        m_handed.pop_front();
        ++m_head;
        if (m_segments.size() > 1 && m_head == m_segments.front().first + quint64(m_segments.front().count)) {
            removeFront();
            m_headOffset = 0;
        }
    }
    followHead();
}

void MqttSpool::followHead()
{
    // After a rewind() the records being handed out again may all have been acknowledged meanwhile.
    if (m_send < m_head) {
        m_send = m_head;
        m_sendOffset = m_headOffset;
    }
}

int MqttSpool::outstanding() const
{
    const size_t handedSinceRewind = std::min<size_t>(size_t(m_send - m_head), m_handed.size());
    return int(std::count_if(m_handed.cbegin(), m_handed.cbegin() + qint64(handedSinceRewind),
        [](const Handed &handed) { return !handed.acknowledged; }));
}

void MqttSpool::rewind()
{
    m_send = m_head;
    m_sendOffset = m_headOffset;
}

void MqttSpool::sync()
{
    if (m_dataDirty && m_writeFile.isOpen())
        ::fdatasync(m_writeFile.handle());
    m_dataDirty = false;
    if (m_head != m_savedHead)
        saveHead();
}

void MqttSpool::saveHead()
{
    // Written whole and renamed into place, so a crash leaves the old head or the new one, never half of one.
    QSaveFile file(m_folder + QLatin1Char('/') + HeadFileName);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(QByteArray::number(m_head) + '\n');
    if (file.commit())
        m_savedHead = m_head;
}

void MqttSpool::syncFolder() const
{
    const int fd = ::open(QFile::encodeName(m_folder).constData(), O_RDONLY | O_DIRECTORY);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}
