#include "testsupport.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TestSupport {

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

qint64 folderBytes(const QString &folder)
{
    qint64 total = 0;
    QDirIterator it(folder, QDir::Files);
    while (it.hasNext()) {
        it.next();
        total += it.fileInfo().size();
    }
    return total;
}

QStringList logLines(const QString &path)
{
    static const QRegularExpression time(QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d "));
    QStringList lines;
    const QStringList raw = QString::fromUtf8(readFile(path)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (QString line : raw) {
        const QRegularExpressionMatch match = time.match(line);
        lines.append(match.hasMatch() ? line.mid(match.capturedLength()) : QStringLiteral("<no time> ") + line);
    }
    return lines;
}

bool copyTestPlugin(const QString &name, const QString &destination)
{
    QDir().mkpath(QFileInfo(destination).absolutePath());
    return QFile::copy(QStringLiteral(ORVIX_TEST_PLUGIN_DIR "/lib%1.so").arg(name), destination);
}

qint64 residentBytes()
{
    const QList<QByteArray> fields = readFile(QStringLiteral("/proc/self/statm")).split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

quint16 freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof(address);
    quint16 port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

} // namespace TestSupport
