#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

/// The deployment's metric tables, and what every file of them has to fulfil, checked while it is compiled.
namespace smarthome::metric_tables {

struct MetricRow {
    const char* key;
    const char* id;
};

#include NIPC_METRIC_TABLES

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isLower(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isLowerOrDigit(char c) { return isLower(c) || isDigit(c); }
constexpr bool isLowerHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }
constexpr bool isLetterOrDigit(char c) { return isLowerOrDigit(c) || isUpper(c); }
constexpr bool isIdentifierPart(char c) { return isLetterOrDigit(c) || c == '_'; }

constexpr bool all(std::string_view text, bool (*allowed)(char)) {
    for (const char c : text) {
        if (!allowed(c)) return false;
    }
    return true;
}

constexpr bool isGroupId(std::string_view id) { return id.size() == 8 && all(id, isLowerOrDigit); }

constexpr bool isSchemaId(std::string_view id) {
    return id.size() == 15 && all(id.substr(0, 4), isLowerOrDigit) && id.substr(4, 3) == "/2/" &&
           all(id.substr(7), isLowerHex);
}

constexpr bool isCamelCase(std::string_view key) {
    return !key.empty() && isUpper(key.front()) && all(key, isLetterOrDigit);
}

constexpr bool isIdentifier(std::string_view key) {
    return !key.empty() && !isDigit(key.front()) && all(key, isIdentifierPart);
}

template <std::size_t size>
constexpr bool keysAre(const MetricRow (&rows)[size], bool (*wellFormed)(std::string_view)) {
    for (const MetricRow& row : rows) {
        if (!wellFormed(row.key)) return false;
    }
    return true;
}

template <std::size_t size>
constexpr bool idsAre(const MetricRow (&rows)[size], bool (*wellFormed)(std::string_view)) {
    for (const MetricRow& row : rows) {
        if (!wellFormed(row.id)) return false;
    }
    return true;
}

template <std::size_t size>
constexpr bool noKeyTwice(const MetricRow (&rows)[size]) {
    for (std::size_t i = 0; i < size; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (std::string_view(rows[i].key) == rows[j].key) return false;
        }
    }
    return true;
}

static_assert(keysAre(metricGroupRows, isCamelCase), "a metric group's key is a CamelCase identifier");
static_assert(idsAre(metricGroupRows, isGroupId), "a metric group id is 8 lowercase letters or digits");
static_assert(noKeyTwice(metricGroupRows), "a metric group's key stands once");
static_assert(std::string_view(metricGroupRows[0].id) == defaultMetricGroupId,
              "the first metric group has the default group id");

static_assert(keysAre(metricSchemaRows, isIdentifier), "a metric schema's key is an identifier");
static_assert(idsAre(metricSchemaRows, isSchemaId),
              "a metric schema id is 4 lowercase letters or digits, \"/2/\", and 8 lowercase hexadecimal digits");
static_assert(noKeyTwice(metricSchemaRows), "a metric schema's key stands once");
static_assert(isSchemaId(defaultMetricSchemaId),
              "the default metric schema id is 4 lowercase letters or digits, \"/2/\", and 8 lowercase hexadecimal "
              "digits");

}  // namespace smarthome::metric_tables
