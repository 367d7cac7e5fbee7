#pragma once
// Small records of texts stored as property lists, the format other
// programs of a synchronised store read without knowing kvtrack. A record
// maps keys to a text or to a list of texts.

#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kvtrack {

using PropertyValue = std::variant<std::string, std::vector<std::string>>;
using PropertyRecord = std::map<std::string, PropertyValue, std::less<>>;

/// The record as an XML property list (a "dict" of "string" and "array").
std::string propertyListXML(const PropertyRecord& record);
/// Writes the XML form to the file (not atomically). False, logged, on failure.
bool writePropertyList(const PropertyRecord& record, const std::string& path);

/// The given keys of an XML or binary property list whose top is a
/// dictionary; keys it does not hold are missing from the record. Numbers
/// and booleans are read as their text ("12", "2.5", "true"); values of
/// other kinds (dates, data, nested dictionaries) are left out. Absent,
/// logged, for anything that is not such a property list.
std::optional<PropertyRecord> propertyListFromData(std::string_view data,
                                                   std::span<const std::string_view> keys);
std::optional<PropertyRecord> readPropertyList(const std::string& path,
                                               std::span<const std::string_view> keys);

/// The text at the key; absent when missing or a list.
std::optional<std::string> propertyText(const PropertyRecord& record, std::string_view key);

}  // namespace kvtrack
