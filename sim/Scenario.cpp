#include "sim/Scenario.h"

#include <QJsonArray>
#include <QJsonValue>
#include <algorithm>
#include <cctype>
#include <cmath>

namespace sim {

namespace {

std::string describe(const QJsonValue& v) {
    switch (v.type()) {
        case QJsonValue::Null:
            return "null";
        case QJsonValue::Bool:
            return "a boolean";
        case QJsonValue::Double:
            return "a number";
        case QJsonValue::String:
            return "a string";
        case QJsonValue::Array:
            return "an array";
        case QJsonValue::Object:
            return "an object";
        case QJsonValue::Undefined:
            break;
    }
    return "nothing";
}

bool parseIntegerText(const std::string& text, int64_t& out) {
    std::string s = text;
    s.erase(0, s.find_first_not_of(" \t"));
    s.erase(s.find_last_not_of(" \t") + 1);
    if (s.empty())
        return false;
    bool negative = false;
    size_t i = 0;
    if (s[0] == '-') {
        negative = true;
        i = 1;
    }
    int base = 10;
    if (s.size() > i + 1 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
        base = 16;
        i += 2;
    }
    if (i >= s.size())
        return false;
    uint64_t value = 0;
    for (; i < s.size(); ++i) {
        int digit;
        char c = s[i];
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
            digit = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        else
            return false;
        if (value > (static_cast<uint64_t>(INT64_MAX) - digit) / base)
            return false;
        value = value * base + digit;
    }
    out = negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
    return true;
}

}  // namespace

ScenarioError::ScenarioError(const std::string& file, const std::string& field, const std::string& problem)
    : std::runtime_error(file + ": " + (field.empty() ? std::string() : field + ": ") + problem),
      file_(file),
      field_(field),
      problem_(problem) {}

Entry::Entry(QJsonObject object, std::string file, std::string path)
    : object_(std::move(object)), file_(std::move(file)), path_(std::move(path)) {}

std::string Entry::field(const std::string& key) const {
    if (path_.empty())
        return key;
    if (key.empty())
        return path_;
    return path_ + "." + key;
}

bool Entry::has(const std::string& key) const {
    return object_.contains(QString::fromStdString(key));
}

void Entry::fail(const std::string& key, const std::string& problem) const {
    throw ScenarioError(file_, field(key), problem);
}

int64_t Entry::toInteger(const std::string& key, const QJsonValue& v, int64_t min, int64_t max) const {
    int64_t value = 0;
    if (v.isDouble()) {
        double d = v.toDouble();
        if (!std::isfinite(d) || std::floor(d) != d || d < -9.2e18 || d > 9.2e18)
            fail(key, "expected an integer, got " + std::to_string(d));
        value = static_cast<int64_t>(d);
    } else if (v.isString()) {
        if (!parseIntegerText(v.toString().toStdString(), value))
            fail(key, "expected an integer (decimal or 0x hexadecimal), got \"" + v.toString().toStdString() +
                          "\"");
    } else {
        fail(key, "expected an integer, got " + describe(v));
    }
    if (value < min || value > max)
        fail(key, "value " + std::to_string(value) + " is out of range " + std::to_string(min) + ".." +
                      std::to_string(max));
    return value;
}

int64_t Entry::integer(const std::string& key, int64_t min, int64_t max) const {
    if (!has(key))
        fail(key, "missing (an integer is required)");
    return toInteger(key, object_.value(QString::fromStdString(key)), min, max);
}

int64_t Entry::integer(const std::string& key, int64_t fallback, int64_t min, int64_t max) const {
    if (!has(key))
        return fallback;
    return toInteger(key, object_.value(QString::fromStdString(key)), min, max);
}

double Entry::number(const std::string& key, double fallback) const {
    if (!has(key))
        return fallback;
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isDouble())
        fail(key, "expected a number, got " + describe(v));
    return v.toDouble();
}

std::string Entry::string(const std::string& key) const {
    if (!has(key))
        fail(key, "missing (a string is required)");
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isString())
        fail(key, "expected a string, got " + describe(v));
    return v.toString().toStdString();
}

std::string Entry::string(const std::string& key, const std::string& fallback) const {
    if (!has(key))
        return fallback;
    return string(key);
}

bool Entry::boolean(const std::string& key, bool fallback) const {
    if (!has(key))
        return fallback;
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isBool())
        fail(key, "expected true or false, got " + describe(v));
    return v.toBool();
}

std::string Entry::choice(const std::string& key, const std::vector<std::string>& choices,
                          const std::string& fallback) const {
    if (!has(key))
        return fallback;
    std::string s = string(key);
    if (std::find(choices.begin(), choices.end(), s) != choices.end())
        return s;
    std::string list;
    for (const auto& c : choices)
        list += (list.empty() ? "\"" : ", \"") + c + "\"";
    fail(key, "\"" + s + "\" is not one of " + list);
}

Entry Entry::object(const std::string& key) const {
    if (!has(key))
        fail(key, "missing (an object is required)");
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isObject())
        fail(key, "expected an object, got " + describe(v));
    return Entry(v.toObject(), file_, field(key));
}

std::vector<Entry> Entry::objects(const std::string& key) const {
    std::vector<Entry> out;
    if (!has(key))
        return out;
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isArray())
        fail(key, "expected an array of objects, got " + describe(v));
    QJsonArray a = v.toArray();
    for (int i = 0; i < a.size(); ++i) {
        std::string itemKey = key + "[" + std::to_string(i) + "]";
        if (!a[i].isObject())
            fail(itemKey, "expected an object, got " + describe(a[i]));
        out.emplace_back(a[i].toObject(), file_, field(itemKey));
    }
    return out;
}

std::vector<int64_t> Entry::integers(const std::string& key, int64_t min, int64_t max) const {
    std::vector<int64_t> out;
    if (!has(key))
        return out;
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (!v.isArray())
        fail(key, "expected an array of integers, got " + describe(v));
    QJsonArray a = v.toArray();
    for (int i = 0; i < a.size(); ++i)
        out.push_back(toInteger(key + "[" + std::to_string(i) + "]", a[i], min, max));
    return out;
}

std::vector<uint8_t> Entry::bytes(const std::string& key) const {
    std::vector<uint8_t> out;
    if (!has(key))
        return out;
    QJsonValue v = object_.value(QString::fromStdString(key));
    if (v.isArray()) {
        for (int64_t b : integers(key, 0, 255))
            out.push_back(static_cast<uint8_t>(b));
        return out;
    }
    if (!v.isString())
        fail(key, "expected bytes (an array of 0..255 or a hexadecimal string), got " + describe(v));
    std::string hex;
    for (char c : v.toString().toStdString()) {
        if (c == ' ' || c == ':' || c == '-')
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            fail(key, std::string("'") + c + "' is not a hexadecimal digit");
        hex.push_back(c);
    }
    if (hex.size() % 2 != 0)
        fail(key, "odd number of hexadecimal digits");
    for (size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

void Entry::allowOnly(const std::vector<std::string>& keys) const {
    for (auto it = object_.begin(); it != object_.end(); ++it) {
        std::string k = it.key().toStdString();
        if (std::find(keys.begin(), keys.end(), k) == keys.end())
            fail(k, "unknown field");
    }
}

}  // namespace sim
