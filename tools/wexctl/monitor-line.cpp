#include "wexctl/monitor-line.h"

#include <algorithm>
#include <array>
#include <optional>

namespace wexctl {

namespace {

std::string now(const char* format, const char* zone) {
  g_autoptr(GDateTime) time = g_date_time_new_now_local();
  g_autofree gchar* text = g_date_time_format(time, format);
  g_autofree gchar* zone_text = g_date_time_format(time, zone);
  return fmt::format("{}.{:03}{}", text, g_date_time_get_microsecond(time) / 1000, zone_text);
}

// As RFC 3339 has it.
std::string timestamp() {
  return now("%FT%T", "%:z");
}

std::string plain(const Json& value) {
  return printable(value.is_string() ? value.get<std::string>() : value.dump());
}

std::string json_field(const MonitorLine& line, const char* key) {
  return line.fields.contains(key) ? plain(line.fields[key]) : "";
}

struct Field {
  std::string_view name;
  std::string (*value)(const MonitorLine& line);
};

constexpr std::array known_fields{
    Field{"time", [](const MonitorLine&) { return timestamp(); }},
    Field{"kind", [](const MonitorLine& line) { return std::string(line.kind); }},
    Field{"port", [](const MonitorLine& line) { return json_field(line, "port"); }},
    Field{"name", [](const MonitorLine& line) { return json_field(line, "name"); }},
    Field{"state", [](const MonitorLine& line) { return line.state; }},
    Field{"direction",
          [](const MonitorLine& line) {
            const bool known = line.fields.contains("input");
            return std::string(!known ? "" : line.fields["input"] == true ? "input" : "output");
          }},
    Field{"interface", [](const MonitorLine& line) { return json_field(line, "interface"); }},
    Field{"property", [](const MonitorLine& line) { return json_field(line, "property"); }},
    Field{"value", [](const MonitorLine& line) { return json_field(line, "value"); }},
    Field{"text", [](const MonitorLine& line) { return line.text; }},
};

const Field* find_field(std::string_view name) {
  const auto* const found = std::ranges::find(known_fields, name, &Field::name);
  return found != known_fields.end() ? found : nullptr;
}

struct Parsed {
  std::vector<std::pair<std::string, std::string_view>> parts;
  std::string mistake;
};

Parsed wrong(const std::string& what) {
  return {.parts = {}, .mistake = what};
}

// A brace that is meant as such is written twice.
Parsed parse(const std::string& format) {
  Parsed parsed;
  std::string text;
  for (size_t at = 0; at < format.size(); at++) {
    const char c = format[at];
    if ((c != '{' && c != '}') || format.substr(at, 2) == std::string(2, c)) {
      text += c;
      at += c == '{' || c == '}' ? 1 : 0;
      continue;
    }
    const auto end = format.find('}', at);
    if (c == '}' || end == std::string::npos) {
      return wrong(fmt::format("'{}' has a brace without the other", format));
    }
    const auto* const field = find_field(format.substr(at + 1, end - at - 1));
    if (field == nullptr) {
      return wrong(fmt::format("'{}' is no field of a line", format.substr(at, end - at + 1)));
    }
    parsed.parts.emplace_back(std::exchange(text, ""), field->name);
    at = end;
  }
  parsed.parts.emplace_back(text, "");
  return parsed;
}

} // namespace

LineFormat LineFormat::fields(const std::string& format) {
  LineFormat made(Kind::Fields);
  made.parts_ = parse(format).parts;
  return made;
}

std::string LineFormat::shown(const MonitorLine& line) const {
  switch (kind_) {
  case Kind::People:
    return fmt::format("{}  {}\n", coloured(Colour::Dim, now("%T", "")), line.text);
  case Kind::Machines: {
    Json object{{"event", line.kind}};
    object.update(line.fields);
    object["time"] = timestamp();
    return json_text(object) + "\n";
  }
  case Kind::Fields:
    break;
  }
  std::string shown;
  for (const auto& [text, name] : parts_) {
    const auto* const field = find_field(name);
    shown += text + (field != nullptr ? field->value(line) : "");
  }
  return shown + "\n";
}

std::string format_mistake(const std::string& format) {
  return parse(format).mistake;
}

} // namespace wexctl
