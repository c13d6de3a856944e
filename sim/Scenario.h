#pragma once

// Reading a scenario: one JSON file describing a machine. An Entry is one JSON
// object of the file with its place in it ("devices[2].chips[0]"), and typed
// getters that throw ScenarioError naming the file and the field on bad input.
// Device models read their own fields through an Entry.

#include <QJsonObject>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

class ScenarioError : public std::runtime_error {
public:
    ScenarioError(const std::string& file, const std::string& field, const std::string& problem);
    const std::string& file() const { return file_; }
    const std::string& field() const { return field_; }
    const std::string& problem() const { return problem_; }

private:
    std::string file_, field_, problem_;
};

class Entry {
public:
    Entry(QJsonObject object, std::string file, std::string path);

    const std::string& file() const { return file_; }
    const std::string& path() const { return path_; }  // e.g. "devices[1]"
    std::string field(const std::string& key) const;   // e.g. "devices[1].vendor_id"
    const QJsonObject& json() const { return object_; }
    bool has(const std::string& key) const;

    // Integers accept a JSON number without fraction or a string in decimal or
    // "0x" hexadecimal. The range is checked.
    int64_t integer(const std::string& key, int64_t min = INT64_MIN, int64_t max = INT64_MAX) const;
    int64_t integer(const std::string& key, int64_t fallback, int64_t min, int64_t max) const;
    double number(const std::string& key, double fallback) const;
    std::string string(const std::string& key) const;
    std::string string(const std::string& key, const std::string& fallback) const;
    bool boolean(const std::string& key, bool fallback) const;
    // A string that must be one of the choices.
    std::string choice(const std::string& key, const std::vector<std::string>& choices,
                       const std::string& fallback) const;
    Entry object(const std::string& key) const;
    // An array of objects; absent gives an empty list.
    std::vector<Entry> objects(const std::string& key) const;
    // An array of integers (each as integer() accepts); absent gives an empty list.
    std::vector<int64_t> integers(const std::string& key, int64_t min, int64_t max) const;
    // Bytes: an array of integers 0..255, or a string of hexadecimal digit pairs
    // (spaces allowed). Absent gives an empty list.
    std::vector<uint8_t> bytes(const std::string& key) const;

    // Rejects keys that are not in the list (catches typos in scenarios).
    void allowOnly(const std::vector<std::string>& keys) const;

    [[noreturn]] void fail(const std::string& key, const std::string& problem) const;

private:
    int64_t toInteger(const std::string& key, const class QJsonValue& v, int64_t min, int64_t max) const;
    QJsonObject object_;
    std::string file_;
    std::string path_;
};

}  // namespace sim
