#include "kvtrack/sync/PropertyList.h"

#include "kvtrack/support/Log.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/NumberText.h"

#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>

namespace kvtrack {

namespace {

struct NodeFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeFree>;

// A scalar as text; absent for kinds a record does not hold.
std::optional<std::string> scalarText(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      // Not plist_get_string_val: it aborts the process on a text holding
      // a NUL character, which a hostile file can contain.
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return text ? std::string(text, length) : std::string();
    }
    case PLIST_UINT: {
      uint64_t value = 0;
      plist_get_uint_val(node, &value);
      // libplist keeps negative integers in this type, two's complement.
      return std::to_string(static_cast<int64_t>(value));
    }
    case PLIST_REAL: {
      double value = 0.0;
      plist_get_real_val(node, &value);
      return decimalText(value);
    }
    case PLIST_BOOLEAN: {
      uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return std::string(value ? "true" : "false");
    }
    default:
      return std::nullopt;
  }
}

std::optional<PropertyValue> value(plist_t node) {
  if (plist_get_node_type(node) != PLIST_ARRAY) {
    auto text = scalarText(node);
    if (!text) return std::nullopt;
    return PropertyValue(std::move(*text));
  }
  std::vector<std::string> texts;
  const uint32_t size = plist_array_get_size(node);
  for (uint32_t i = 0; i < size; ++i) {
    if (auto text = scalarText(plist_array_get_item(node, i))) texts.push_back(std::move(*text));
  }
  return PropertyValue(std::move(texts));
}

}  // namespace

std::string propertyListXML(const PropertyRecord& record) {
  Node dictionary(plist_new_dict());
  for (const auto& [key, entry] : record) {
    plist_t item = nullptr;
    if (const auto* text = std::get_if<std::string>(&entry)) {
      item = plist_new_string(text->c_str());
    } else {
      item = plist_new_array();
      for (const auto& element : std::get<std::vector<std::string>>(entry)) {
        plist_array_append_item(item, plist_new_string(element.c_str()));
      }
    }
    plist_dict_set_item(dictionary.get(), key.c_str(), item);  // the dictionary owns it now
  }
  char* raw = nullptr;
  uint32_t length = 0;
  plist_to_xml(dictionary.get(), &raw, &length);
  std::string xml(raw ? raw : "", raw ? length : 0);
  plist_to_xml_free(raw);
  return xml;
}

bool writePropertyList(const PropertyRecord& record, const std::string& path) {
  // Replaced only by a complete record; a failure is logged there.
  return writeFileAtomically(path, propertyListXML(record)).ok();
}

std::optional<PropertyRecord> propertyListFromData(std::string_view data,
                                                   std::span<const std::string_view> keys) {
  if (data.size() > std::numeric_limits<uint32_t>::max()) {
    logf("PropertyList: {} bytes are too many for a property list", data.size());
    return std::nullopt;
  }
  plist_t raw = nullptr;
  plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &raw);
  const Node root(raw);
  if (!root) {
    logLine("PropertyList: not a readable property list (XML or binary)");
    return std::nullopt;
  }
  if (plist_get_node_type(root.get()) != PLIST_DICT) {
    logLine("PropertyList: the property list holds no dictionary");
    return std::nullopt;
  }
  // Only the keys asked for are looked up: reading a key's text out of
  // libplist aborts the process when the key holds a NUL character, and a
  // hostile file can hold one. Looking a key up by name is safe.
  PropertyRecord record;
  for (const std::string_view key : keys) {
    const std::string name(key);
    if (plist_t node = plist_dict_get_item(root.get(), name.c_str())) {
      if (auto entry = value(node)) record.emplace(name, std::move(*entry));
    }
  }
  return record;
}

std::optional<PropertyRecord> readPropertyList(const std::string& path,
                                               std::span<const std::string_view> keys) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    logf("Error reading file: {}", path);
    return std::nullopt;
  }
  const std::string data(std::istreambuf_iterator<char>(in), {});
  auto record = propertyListFromData(data, keys);
  if (!record) logf("PropertyList: {} was not read", path);
  return record;
}

std::optional<std::string> propertyText(const PropertyRecord& record, std::string_view key) {
  const auto it = record.find(key);
  if (it == record.end()) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&it->second)) return *text;
  return std::nullopt;
}

}  // namespace kvtrack
