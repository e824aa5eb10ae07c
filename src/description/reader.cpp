#include "description/reader.h"

#include <vector>

namespace {

const DescriptionHandler& handler_of(gpointer user_data) {
  return *static_cast<DescriptionHandler*>(user_data);
}

int line_of(GMarkupParseContext* context) {
  gint line = 0;
  gint character = 0;
  g_markup_parse_context_get_position(context, &line, &character);
  // The parser looks one character ahead: when the tag ended its line, the next one is counted.
  return character == 1 ? line - 1 : line;
}

void start_element(GMarkupParseContext* context, const gchar* element, const gchar** names,
                   const gchar** values, gpointer user_data, GError** /*error*/) {
  std::vector<DescribedAttribute> attributes;
  for (; *names != nullptr; names++, values++) {
    attributes.push_back({.name = *names, .value = *values});
  }
  handler_of(user_data).start(
      {.name = element, .line = line_of(context), .attributes = attributes});
}

void end_element(GMarkupParseContext* /*context*/, const gchar* element, gpointer user_data,
                 GError** /*error*/) {
  handler_of(user_data).end(element);
}

constexpr GMarkupParser parser{
    .start_element = start_element,
    .end_element = end_element,
    .text = nullptr,
    .passthrough = nullptr,
    .error = nullptr,
};

} // namespace

Reading description_read(const std::string& text, DescriptionHandler handler, GError** error) {
  g_autoptr(GMarkupParseContext) context =
      g_markup_parse_context_new(&parser, G_MARKUP_DEFAULT_FLAGS, &handler, nullptr);
  if (!g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()),
                                    error)) {
    return Reading::Broken;
  }
  return g_markup_parse_context_end_parse(context, error) ? Reading::Whole : Reading::CutShort;
}
