#include "common/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <memory>

#include "common/AtomicFile.h"

namespace kd {

namespace {

// Seconds between 1970-01-01 and the property-list epoch 2001-01-01.
constexpr std::int64_t kPlistEpoch = 978307200;

struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// Nesting deeper than this is treated as malformed rather than recursed into.
constexpr int kMaxDepth = 256;

// Converts a node into `out`; false for nodes that are not values or nest too
// deeply. (An out-parameter rather than an optional result: GCC 12 reports
// false "maybe uninitialized" warnings for optionals of this variant.)
bool fromNode(plist_t node, int depth, PlistValue& out) {
  if (!node || depth > kMaxDepth) return false;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      out = PlistValue(b != 0);
      return true;
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      out = PlistValue(static_cast<std::int64_t>(u));
      return true;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      out = PlistValue(d);
      return true;
    }
    case PLIST_STRING: {
      char* s = nullptr;
      plist_get_string_val(node, &s);
      out = PlistValue(std::string(s ? s : ""));
      free(s);
      return true;
    }
    case PLIST_DATA: {
      char* d = nullptr;
      uint64_t len = 0;
      plist_get_data_val(node, &d, &len);
      PlistData data;
      if (d) data.bytes.assign(d, d + len);
      free(d);
      out = PlistValue(std::move(data));
      return true;
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      auto since1970 = std::chrono::seconds(kPlistEpoch + sec) + std::chrono::microseconds(usec);
      out = PlistValue(PlistDate(std::chrono::duration_cast<PlistDate::duration>(since1970)));
      return true;
    }
    case PLIST_ARRAY: {
      PlistArray arr;
      uint32_t n = plist_array_get_size(node);
      arr.resize(n);
      for (uint32_t i = 0; i < n; ++i)
        if (!fromNode(plist_array_get_item(node, i), depth + 1, arr[i])) return false;
      out = PlistValue(std::move(arr));
      return true;
    }
    case PLIST_DICT: {
      PlistDict dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      bool ok = true;
      while (it) {
        char* key = nullptr;
        plist_t val = nullptr;
        plist_dict_next_item(node, it, &key, &val);
        if (!val) {
          free(key);
          break;
        }
        PlistValue item;
        ok = fromNode(val, depth + 1, item);
        if (ok && key) dict.insert_or_assign(key, std::move(item));
        free(key);
        if (!ok) break;
      }
      free(it);
      if (!ok) return false;
      out = PlistValue(std::move(dict));
      return true;
    }
    default:
      return false;  // keys, uids and unknown nodes are not values
  }
}

plist_t toNode(const PlistValue& value) {
  struct Visitor {
    plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
    plist_t operator()(std::int64_t i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
    plist_t operator()(double d) const { return plist_new_real(d); }
    plist_t operator()(bool b) const { return plist_new_bool(b ? 1 : 0); }
    plist_t operator()(const PlistDate& d) const {
      auto us = std::chrono::duration_cast<std::chrono::microseconds>(d.time_since_epoch()).count();
      std::int64_t rel = us - kPlistEpoch * 1000000;
      std::int64_t sec = rel >= 0 ? rel / 1000000 : -((-rel + 999999) / 1000000);
      std::int64_t usec = rel - sec * 1000000;
      return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec));
    }
    plist_t operator()(const PlistData& d) const {
      return plist_new_data(reinterpret_cast<const char*>(d.bytes.data()), d.bytes.size());
    }
    plist_t operator()(const PlistArray& a) const {
      plist_t arr = plist_new_array();
      for (const auto& item : a) plist_array_append_item(arr, toNode(item));
      return arr;
    }
    plist_t operator()(const PlistDict& m) const {
      plist_t dict = plist_new_dict();
      for (const auto& [k, v] : m) plist_dict_set_item(dict, k.c_str(), toNode(v));
      return dict;
    }
  };
  return std::visit(Visitor{}, value.storage());
}

}  // namespace

std::optional<PlistDict> parsePlistDictionary(const std::string& bytes) {
  if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
  plist_t root = nullptr;
  if (plist_is_binary(bytes.data(), static_cast<uint32_t>(bytes.size())))
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  else
    plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  PlistPtr owner(root);
  if (!root || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  PlistValue value;
  if (!fromNode(root, 0, value) || !value.is<PlistDict>()) return std::nullopt;
  return std::move(*value.get<PlistDict>());
}

std::optional<PlistDict> readPlistDictionary(const std::string& path) {
  auto bytes = readWholeFile(path);
  if (!bytes) return std::nullopt;
  return parsePlistDictionary(*bytes);
}

PlistDict readPlistDictionaryOrEmpty(const std::string& path) {
  auto dict = readPlistDictionary(path);
  return dict ? std::move(*dict) : PlistDict{};
}

std::string plistDictionaryToXml(const PlistDict& dict) {
  PlistPtr root(toNode(PlistValue(dict)));
  char* xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(static_cast<plist_t>(root.get()), &xml, &len);
  std::string out(xml ? xml : "", xml ? len : 0);
  if (xml) plist_to_xml_free(xml);
  return out;
}

bool writePlistDictionaryAtomically(const PlistDict& dict, const std::string& path,
                                    std::string* error, const std::optional<FileOwner>& owner) {
  return writeFileAtomically(path, plistDictionaryToXml(dict), error, owner);
}

bool plistFlagIsSet(const PlistDict& dict, const std::string& key) {
  auto it = dict.find(key);
  if (it == dict.end()) return false;
  const PlistValue& v = it->second;
  if (auto s = v.get<std::string>()) return *s == "1";
  if (auto b = v.get<bool>()) return *b;
  if (auto i = v.get<std::int64_t>()) return *i == 1;
  if (auto d = v.get<double>()) return *d == 1.0;
  return false;
}

std::optional<PlistDate> plistDate(const PlistDict& dict, const std::string& key) {
  auto it = dict.find(key);
  if (it == dict.end()) return std::nullopt;
  if (auto d = it->second.get<PlistDate>()) return *d;
  return std::nullopt;
}

}  // namespace kd
