// Property files read as the platform's init reads them at boot, parsed apart from reading: the
// checker's reader of the files a device loads, and the host property store's.
#pragma once

#include <string>
#include <vector>

// One line of a property file that sets a key, as init keeps it.
struct PropertyLine {
  std::string path;
  int line = 0;
  std::string key, value;
};

// What init makes of a property file's text (system/core/init/property_service.cpp of Android 11,
// LoadProperties): lines end at '\n' alone; blanks (isspace: a CR among them) before a line and at
// its end are dropped; a line whose first other character is '#' is a comment; "import PATH"
// names another file; otherwise the key runs to the first '=' less the blanks before it, and the
// value follows it less the blanks after the '='. A line without '=' sets nothing.
struct PropertyText {
  std::vector<PropertyLine> lines;    // every line that sets a key, in file order
  std::vector<PropertyLine> imports;  // key "import", value the named path
};
PropertyText parse_property_text(const std::string& path, const std::string& text);

// Why init's PropertySet refuses key=value (empty: it is set): a value of PROP_VALUE_MAX bytes or
// more, unless the key starts with "ro.".
std::string property_refusal(const std::string& key, const std::string& value);

// Where init reads a file among those it loads at boot (property_service.cpp,
// PropertyLoadBootDefaults), by the end of its path: a later file's line for a key wins over an
// earlier's. A file init does not load by name ranks after all of them.
int init_load_rank(const std::string& path);
// Whether init takes key from the file at path: factory.prop gives ro.* keys alone.
bool init_loads(const std::string& path, const std::string& key);
