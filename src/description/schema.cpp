#include "description/schema.h"

#include "description/common-vocabulary.h"

#include <fmt/format.h>
#include <glib.h>

namespace {

constexpr int indent_width = 2;

std::string escaped(const char* text) {
  g_autofree gchar* markup = g_markup_escape_text(text, -1);
  std::string result(markup);
  // Plain quotes are fine between tags, and easier to read.
  for (const auto& [coded, plain] : {std::pair("&quot;", "\""), std::pair("&apos;", "'")}) {
    for (auto at = result.find(coded); at != std::string::npos; at = result.find(coded, at)) {
      result.replace(at, std::string_view(coded).size(), plain);
    }
  }
  return result;
}

std::string choice_of(std::span<const char* const> words) {
  std::string text = "<choice>";
  for (const char* word : words) {
    text += fmt::format("<value>{}</value>", word);
  }
  return text + "</choice>";
}

std::string pattern(const char* expression) {
  return fmt::format(R"(<data type="string"><param name="pattern">{}</param></data>)", expression);
}

std::string type_of(const AttributeWord& attribute) {
  static constexpr std::array flag_words{"true", "false"};
  switch (attribute.form) {
  case ValueForm::Text:
  case ValueForm::PortText:
    return "<text/>";
  case ValueForm::Decimal:
    return R"(<data type="integer"/>)";
  case ValueForm::Unsigned:
    return R"(<data type="nonNegativeInteger"/>)";
  case ValueForm::AnyBase:
    return pattern("[+-]?(0[xX][0-9a-fA-F]+|[0-9]+)");
  case ValueForm::Hex:
    return pattern("(0[xX])?[0-9a-fA-F]+");
  case ValueForm::Flag:
  case ValueForm::Mark:
  case ValueForm::Switch:
  case ValueForm::SwitchOff:
    return choice_of(flag_words);
  case ValueForm::Words:
  case ValueForm::WordsInAnyCase:
  case ValueForm::JudgedWords:
    return choice_of(attribute.words);
  }
  return {};
}

class Writer {
public:
  template <typename... Arguments>
  void line(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    text_.append(depth_ * indent_width, ' ');
    text_ += fmt::format(format, std::forward<Arguments>(arguments)...) + '\n';
  }

  /// An element and, inside it, what `inside` writes.
  template <typename Inside>
  void element(std::string_view tag, Inside inside) {
    line("<{}>", tag);
    depth_++;
    inside();
    depth_--;
    line("</{}>", tag.substr(0, tag.find(' ')));
  }

  void documentation(const char* meaning) {
    line("<a:documentation>{}</a:documentation>", escaped(meaning));
  }

  std::string take() { return std::move(text_); }

private:
  std::string text_;
  std::size_t depth_ = 0;
};

std::string named(const char* tag, const char* name) {
  return fmt::format("{} name=\"{}\"", tag, name);
}

void write_attribute(Writer& writer, const AttributeWord& attribute) {
  const auto write = [&] {
    writer.element(named("attribute", attribute.name), [&] {
      writer.documentation(attribute.meaning);
      writer.line("{}", type_of(attribute));
    });
  };
  if (attribute.required) {
    write();
  } else {
    writer.element("optional", write);
  }
}

// An element with its attributes and, inside it, what `inside` writes.
template <typename Inside>
void write_element(Writer& writer, const ElementWord& element, Inside inside) {
  writer.element(named("element", element.name), [&] {
    writer.documentation(element.meaning);
    for (const auto& attribute : element.attributes) {
      write_attribute(writer, attribute);
    }
    if (element.attributes.empty() && element.others != nullptr) {
      writer.line("<oneOrMore><attribute><anyName/><text/></attribute></oneOrMore>");
    }
    inside();
  });
}

// The same, as often as it may occur.
template <typename Inside>
void write_occurrences(Writer& writer, const ElementWord& element, Inside inside) {
  const auto write = [&] { write_element(writer, element, inside); };
  switch (element.occurs) {
  case Occurs::Once:
    write();
    break;
  case Occurs::AtMostOnce:
    writer.element("optional", write);
    break;
  case Occurs::AnyTimes:
  case Occurs::BeforeNext: // with the next one, by write_elements
    writer.element("zeroOrMore", write);
    break;
  }
}

void nothing() {}

const ElementWord& common(std::string_view name) {
  return *find_element(common_elements, name);
}

void write_start(Writer& writer) {
  writer.element("element name=\"config\"", [&] {
    writer.documentation("The root; its name is free as far as the daemon is concerned.");
    writer.element("zeroOrMore", [&] {
      writer.element("choice", [&] {
        writer.line("<ref name=\"port\"/>");
        write_element(writer, common("first_virtual_input"), nothing);
      });
    });
  });
}

void write_port(Writer& writer) {
  write_element(writer, common("port"), [&] {
    writer.element("interleave", [&] {
      for (const char* name :
           {"port_no", "port_type", "param_defaults", "param_default_name", "properties"}) {
        write_occurrences(writer, common(name), nothing);
      }
      writer.line("<ref name=\"backend\"/>");
      writer.element("zeroOrMore", [&] { writer.line("<ref name=\"event\"/>"); });
    });
  });
}

void write_event(Writer& writer) {
  write_element(writer, common("event"),
                [&] { write_occurrences(writer, common("keyvalue"), nothing); });
}

void write_elements(Writer& writer, std::span<const ElementWord> elements) {
  for (gsize i = 0; i < elements.size(); i++) {
    if (elements[i].occurs != Occurs::BeforeNext) {
      write_occurrences(writer, elements[i], nothing);
      continue;
    }
    writer.element("zeroOrMore", [&] {
      writer.element("group", [&] {
        write_element(writer, elements[i], nothing);
        write_element(writer, elements[++i], nothing);
      });
    });
  }
}

void write_backend(Writer& writer, const BackendVocabulary& backend) {
  writer.element("element name=\"backend\"", [&] {
    writer.documentation(backend.meaning);
    writer.element("attribute name=\"name\"", [&] {
      writer.documentation(backend_attributes.front().meaning);
      writer.line("<value>{}</value>", backend.name);
    });
    for (const auto& attribute : backend.attributes) {
      write_attribute(writer, attribute);
    }
    if (backend.elements.empty()) {
      writer.line("<empty/>");
    } else {
      writer.element("interleave", [&] { write_elements(writer, backend.elements); });
    }
  });
}

} // namespace

std::string description_schema() {
  Writer writer;
  writer.line(R"(<?xml version="1.0" encoding="UTF-8"?>)");
  writer.line(
      "<!-- The hardware description of wexd, made by scripts/schema. The reader itself is more");
  writer.line(
      "     lenient: it ignores what it does not know and does not check nesting; what fits this");
  writer.line("     schema means what it says. -->");
  writer.element(R"(grammar xmlns="http://relaxng.org/ns/structure/1.0")"
                 "\n         xmlns:a=\"http://relaxng.org/ns/compatibility/annotations/1.0\""
                 "\n         datatypeLibrary=\"http://www.w3.org/2001/XMLSchema-datatypes\"",
                 [&] {
                   writer.element("start", [&] { write_start(writer); });
                   writer.element("define name=\"port\"", [&] { write_port(writer); });
                   writer.element("define name=\"event\"", [&] { write_event(writer); });
                   writer.element("define name=\"backend\"", [&] {
                     writer.element("choice", [&] {
                       for (const auto* backend : backend_vocabularies()) {
                         write_backend(writer, *backend);
                       }
                     });
                   });
                 });
  return writer.take();
}
