#include "strictjson.h"

#include "jsonerrorlocator.h"

#include <simdjson.h>

#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

// Objects of up to this many keys are checked for repeats by comparing each with those before it; larger ones by a
// set, so that a hostile object of many keys costs linear time.
constexpr size_t LinearKeyLimit = 16;

QString textOf(std::string_view text)
{
    return QString::fromUtf8(text.data(), int(text.size()));
}

bool checkElement(simdjson::dom::element element, QString *error)
{
    simdjson::dom::array array;
    if (element.get(array) == simdjson::SUCCESS) {
        for (simdjson::dom::element child : array) {
            if (!checkElement(child, error))
                return false;
        }
        return true;
    }
    simdjson::dom::object object;
    if (element.get(object) == simdjson::SUCCESS) {
        std::vector<std::string_view> keys;
        std::unordered_set<std::string_view> largeKeys;
        for (simdjson::dom::key_value_pair field : object) {
            bool repeated = false;
            if (keys.size() < LinearKeyLimit) {
                for (std::string_view key : keys)
                    repeated = repeated || key == field.key;
                keys.push_back(field.key);
            } else {
                if (largeKeys.empty())
                    largeKeys.insert(keys.begin(), keys.end());
                repeated = !largeKeys.insert(field.key).second;
            }
            if (repeated) {
                *error = QStringLiteral("duplicate key \"%1\"").arg(textOf(field.key));
                return false;
            }
            if (!checkElement(field.value, error))
                return false;
        }
    }
    return true;
}

} // namespace

bool StrictJson::check(const QByteArray &text, QString *error)
{
    // One parser per thread, kept: it reuses its buffers for every line.
    thread_local simdjson::dom::parser parser(simdjson::SIMDJSON_MAXSIZE_BYTES);
    thread_local bool depthSet = false;
    if (!depthSet) {
        if (parser.allocate(0, MaxDepth) != simdjson::SUCCESS) {
            *error = QStringLiteral("no memory to read the line");
            return false;
        }
        depthSet = true;
    }
    simdjson::dom::element root;
    const simdjson::error_code code = parser.parse(text.constData(), size_t(text.size()), true).get(root);
    if (code == simdjson::DEPTH_ERROR) {
        *error = QStringLiteral("the line nests deeper than %1 levels").arg(MaxDepth);
        return false;
    }
    if (code != simdjson::SUCCESS) {
        qint64 offset = 0;
        QString reason;
        if (JsonErrorLocator::locate(text, &offset, &reason))
            *error = QStringLiteral("the line is not valid JSON: %1 at offset %2").arg(reason).arg(offset);
        else
            *error = QStringLiteral("the line is not valid JSON: %1")
                         .arg(QString::fromUtf8(simdjson::error_message(code)));
        return false;
    }
    return checkElement(root, error);
}
