#include "strictjson.h"

#include "jsondom.h"
#include "jsonerrorlocator.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

QString textOf(std::string_view text)
{
    return QString::fromUtf8(text.data(), int(text.size()));
}

// Objects of up to this many keys are searched for a repeat in a table on the stack; larger ones by sorting.
constexpr size_t SmallObjectKeys = 64;
// The sorting space kept between lines holds this many keys at most, so that one huge object does not stay.
constexpr size_t KeptSortSpace = 4096;

size_t keyHash(const char *key, size_t size)
{
    return size == 0 ? 0 : size * 31 + uchar(key[0]) * 7 + uchar(key[size - 1]) * 131 + uchar(key[size / 2]);
}

/** Whether a large object holds a key twice, found by sorting its keys. */
bool repeatsKeySorted(simdjson::dom::object object)
{
    thread_local std::vector<std::string_view> sorted;
    sorted.clear();
    for (simdjson::dom::key_value_pair field : object)
        sorted.push_back(field.key);
    std::sort(sorted.begin(), sorted.end());
    const bool repeated = std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
    if (sorted.capacity() > KeptSortSpace) {
        sorted.clear();
        sorted.shrink_to_fit();
    }
    return repeated;
}

/**
 * Whether Qt's reader could read a number otherwise than the parsed line says: a zero may be an underflow, which Qt
 * refuses, and a whole floating-point number near 2^63 may or may not become an integer there.
 */
bool unclearNumber(simdjson::dom::element element)
{
    double number = 0;
    if (!element.is_double() || element.get_double().get(number) != simdjson::SUCCESS)
        return false;
    return number == 0 || (std::trunc(number) == number && std::fabs(number) >= 4611686018427387904.0);
}

/** Whether an element needs a look of its own: a container for its keys, a floating-point number for its value. */
bool needsLook(simdjson::dom::element element)
{
    const simdjson::dom::element_type type = element.type();
    return type == simdjson::dom::element_type::OBJECT || type == simdjson::dom::element_type::ARRAY
        || type == simdjson::dom::element_type::DOUBLE;
}

/** Whether the parsed line holds a key twice anywhere; notes an unclear number on the way. */
bool repeatsKeyWithin(simdjson::dom::element element, bool *unclear)
{
    switch (element.type()) {
    case simdjson::dom::element_type::ARRAY: {
        simdjson::dom::array array;
        if (element.get(array) != simdjson::SUCCESS)
            return false;
        for (simdjson::dom::element child : array) {
            if (needsLook(child) && repeatsKeyWithin(child, unclear))
                return true;
        }
        return false;
    }
    case simdjson::dom::element_type::OBJECT: {
        simdjson::dom::object object;
        if (element.get(object) != simdjson::SUCCESS)
            return false;
        if (object.size() > SmallObjectKeys) {
            if (repeatsKeySorted(object))
                return true;
            for (simdjson::dom::key_value_pair field : object) {
                if (needsLook(field.value) && repeatsKeyWithin(field.value, unclear))
                    return true;
            }
            return false;
        }
        // The objects of datasets: each key into a table on the stack, open addressing over twice as many slots as
        // keys (0 free, otherwise the key's index plus one), and its value looked at in the same pass. Only the table
        // is cleared: a key is read only through a slot that names it.
        const char *keys[SmallObjectKeys];
        size_t sizes[SmallObjectKeys];
        std::array<quint8, 2 * SmallObjectKeys> table {};
        constexpr size_t mask = 2 * SmallObjectKeys - 1;
        size_t index = 0;
        for (auto it = object.begin(), end = object.end(); it != end; ++it) {
            const char *key = it.key_c_str();
            const size_t size = it.key_length();
            for (size_t slot = keyHash(key, size) & mask;; slot = (slot + 1) & mask) {
                const quint8 taken = table[slot];
                if (taken == 0) {
                    keys[index] = key;
                    sizes[index] = size;
                    table[slot] = quint8(++index);
                    break;
                }
                if (sizes[taken - 1] == size && CodecDetail::sameBytes(keys[taken - 1], key, size))
                    return true;
            }
            const simdjson::dom::element value = it.value();
            if (needsLook(value) && repeatsKeyWithin(value, unclear))
                return true;
        }
        return false;
    }
    case simdjson::dom::element_type::DOUBLE:
        *unclear = *unclear || unclearNumber(element);
        return false;
    default:
        return false;
    }
}

// Objects of up to this many keys are checked for repeats by comparing each with those before it; larger ones by a
// set, so that a hostile object of many keys costs linear time.
constexpr size_t LinearKeyLimit = 16;

/**
 * Names the first repeated key of the line, depth first, as the refusal has always named it; only for a line that the
 * walk above found to repeat one, so its cost does not count.
 */
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
    simdjson::dom::element root;
    return CodecDetail::parseStrictLine(text, &root, error) != CodecDetail::StrictLine::Refused;
}

CodecDetail::StrictLine CodecDetail::parseStrictLine(
    const QByteArray &text, simdjson::dom::element *root, QString *error)
{
    // One parser per thread, kept: it reuses its buffers for every line.
    thread_local simdjson::dom::parser parser(simdjson::SIMDJSON_MAXSIZE_BYTES);
    thread_local bool depthSet = false;
    if (!depthSet) {
        if (parser.allocate(0, StrictJson::MaxDepth) != simdjson::SUCCESS) {
            *error = QStringLiteral("no memory to read the line");
            return StrictLine::Refused;
        }
        depthSet = true;
    }
    const simdjson::error_code code = parser.parse(text.constData(), size_t(text.size()), true).get(*root);
    if (code == simdjson::DEPTH_ERROR) {
        *error = QStringLiteral("the line nests deeper than %1 levels").arg(StrictJson::MaxDepth);
        return StrictLine::Refused;
    }
    if (code != simdjson::SUCCESS) {
        qint64 offset = 0;
        QString reason;
        if (JsonErrorLocator::locate(text, &offset, &reason))
            *error = QStringLiteral("the line is not valid JSON: %1 at offset %2").arg(reason).arg(offset);
        else
            *error = QStringLiteral("the line is not valid JSON: %1")
                         .arg(QString::fromUtf8(simdjson::error_message(code)));
        return StrictLine::Refused;
    }
    bool unclear = false;
    if (repeatsKeyWithin(*root, &unclear)) {
        checkElement(*root, error);
        return StrictLine::Refused;
    }
    return unclear ? StrictLine::QtOnly : StrictLine::Parsed;
}
