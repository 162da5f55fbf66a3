// Named text properties attached to errors: "uri", positions and sizes.
// Numbers are stored in decimal; content IDs are formatted by the caller.
#pragma once

#include "base/String.h"

#include <map>

namespace zu {

class CProps {
public:
    using Map = std::map<String, String>;

    CProps& set(const String& name, const String& value);
    CProps& set(const String& name, const char* value) { return set(name, String(value)); }
    CProps& set(const String& name, int value) { return set(name, toString(value)); }
    CProps& set(const String& name, unsigned value) { return set(name, toString(value)); }
    CProps& set(const String& name, long value) { return set(name, toString(value)); }
    CProps& set(const String& name, long long value) { return set(name, toString(value)); }
    CProps& set(const String& name, unsigned long value) { return set(name, toString(value)); }
    CProps& set(const String& name, unsigned long long value) { return set(name, toString(value)); }
    CProps& set(const String& name, bool value) { return set(name, toString(value)); }

    bool has(const String& name) const { return values.count(name) != 0; }
    void erase(const String& name) { values.erase(name); }
    // The value, or the empty string when the property is absent.
    String get(const String& name) const;
    bool empty() const { return values.empty(); }
    std::size_t size() const { return values.size(); }
    Map::const_iterator begin() const { return values.begin(); }
    Map::const_iterator end() const { return values.end(); }
    void merge(const CProps& other);

private:
    Map values;
};

} // namespace zu
