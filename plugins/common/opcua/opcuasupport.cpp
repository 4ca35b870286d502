#include "opcuasupport.h"

#include <cstdio>

namespace {

void logToCategory(void *context, UA_LogLevel, UA_LogCategory, const char *message, va_list args)
{
    const QLoggingCategory &category = *static_cast<const QLoggingCategory *>(context);
    if (!category.isDebugEnabled())
        return;
    char text[512];
    vsnprintf(text, sizeof text, message, args);
    QMessageLogger(nullptr, 0, nullptr, category.categoryName()).debug() << QString::fromUtf8(text);
}

void deleteLogger(UA_Logger *logger)
{
    delete logger;
}

} // namespace

namespace OpcUa {

const QStringList &policyNames()
{
    static const QStringList names { QStringLiteral("None"), QStringLiteral("Basic256Sha256"),
        QStringLiteral("Aes128_Sha256_RsaOaep"), QStringLiteral("Aes256_Sha256_RsaPss") };
    return names;
}

const QStringList &modeNames()
{
    static const QStringList names { QStringLiteral("None"), QStringLiteral("Sign"), QStringLiteral("SignAndEncrypt") };
    return names;
}

QString policyUri(const QString &policy)
{
    return QStringLiteral("http://opcfoundation.org/UA/SecurityPolicy#") + policy;
}

QString text(const UA_String &text)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(text.data), int(text.length));
}

QString statusName(UA_StatusCode status)
{
    return QString::fromLatin1(UA_StatusCode_name(status));
}

UA_String view(const QByteArray &bytes)
{
    UA_String result;
    result.length = size_t(bytes.size());
    result.data = reinterpret_cast<UA_Byte *>(const_cast<char *>(bytes.constData()));
    return result;
}

QVector<UA_ByteString> views(const QList<QByteArray> &list)
{
    QVector<UA_ByteString> result;
    result.reserve(list.size());
    for (const QByteArray &bytes : list)
        result.append(view(bytes));
    return result;
}

UA_ByteString copy(const QByteArray &bytes)
{
    const UA_ByteString source = view(bytes);
    UA_ByteString result = UA_BYTESTRING_NULL;
    UA_ByteString_copy(&source, &result);
    return result;
}

QString nodeText(const UA_NodeId &id)
{
    UA_String printed = UA_STRING_NULL;
    UA_NodeId_print(&id, &printed);
    const QString result = text(printed);
    UA_String_clear(&printed);
    return result;
}

UA_Logger *newLogger(const QLoggingCategory &category)
{
    return new UA_Logger { logToCategory, const_cast<QLoggingCategory *>(&category), deleteLogger };
}

} // namespace OpcUa
