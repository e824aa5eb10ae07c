#include "wexctl/check-vocabulary.h"

#include "port/ioport.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <string>

namespace wexctl {

namespace {

using enum ValueForm;

constexpr std::array port_words{AttributeWord{"hwid"}, AttributeWord{"name", PortText},
                                AttributeWord{"optional", Flag}};
constexpr std::array port_no_words{AttributeWord{"nbr", Decimal}};
constexpr std::array port_type_words{AttributeWord{"type"}};
constexpr std::array param_defaults_words{
    AttributeWord{"dir"}, AttributeWord{"port_mode"}, AttributeWord{"button_type"},
    AttributeWord{"pulse_time", Unsigned}, AttributeWord{"usage", PortText}};
constexpr std::array default_name_words{AttributeWord{"input", PortText},
                                        AttributeWord{"output", PortText}};
constexpr std::array property_words{AttributeWord{"*", Flag}};
constexpr std::array backend_words{AttributeWord{"*"}};
constexpr std::array event_words{
    AttributeWord{"declaration"}, AttributeWord{"input", Flag}, AttributeWord{"output", Flag},
    AttributeWord{"supervised_input", Flag}, AttributeWord{"declare_only", Flag}};
constexpr std::array keyvalue_words{
    AttributeWord{"key"},  AttributeWord{"value"},           AttributeWord{"key-nice-name"},
    AttributeWord{"type"}, AttributeWord{"value-nice-name"}, AttributeWord{"property", Flag}};

constexpr std::array common_elements{
    ElementWord{"port", port_words},
    ElementWord{"port_no", port_no_words},
    ElementWord{"port_type", port_type_words},
    ElementWord{"param_defaults", param_defaults_words},
    ElementWord{"param_default_name", default_name_words},
    ElementWord{"properties", property_words},
    ElementWord{"backend", backend_words},
    ElementWord{"event", event_words},
    ElementWord{"keyvalue", keyvalue_words},
    ElementWord{"first_virtual_input", port_no_words},
};

constexpr std::array pin_words{AttributeWord{"pin", Decimal}, AttributeWord{"alias"},
                               AttributeWord{"inverted", Flag}};
constexpr std::array range_words{AttributeWord{"state"}, AttributeWord{"lower", Decimal},
                                 AttributeWord{"upper", Decimal}};
constexpr std::array any_words{AttributeWord{"*"}};

constexpr std::array gpio_elements{ElementWord{"input", pin_words},
                                   ElementWord{"output", pin_words},
                                   ElementWord{"io_ctrl", pin_words}};

constexpr std::array spiadc_device_words{AttributeWord{"device"}, AttributeWord{"timeout", AnyBase},
                                         AttributeWord{"address", AnyBase},
                                         AttributeWord{"inverted", Flag}};
constexpr std::array band_words{AttributeWord{"active_min", AnyBase},
                                AttributeWord{"active_max", AnyBase},
                                AttributeWord{"hysteresis", AnyBase}};
constexpr std::array spiadc_elements{ElementWord{"device", spiadc_device_words},
                                     ElementWord{"range", any_words},
                                     ElementWord{"input", band_words}};

constexpr std::array path_words{AttributeWord{"path"}};
constexpr std::array speed_words{AttributeWord{"value", AnyBase}};
constexpr std::array address_words{AttributeWord{"*", Hex}};
constexpr std::array spi_elements{
    ElementWord{"input", pin_words},       ElementWord{"output", pin_words},
    ElementWord{"io_ctrl", pin_words},     ElementWord{"sio_ctrl", pin_words},
    ElementWord{"device", path_words},     ElementWord{"speed", speed_words},
    ElementWord{"address", address_words}, ElementWord{"range", range_words}};

constexpr std::array iio_device_words{AttributeWord{"name"},
                                      AttributeWord{"adc"},
                                      AttributeWord{"hrtimer"},
                                      AttributeWord{"freq", Unsigned},
                                      AttributeWord{"shift", Unsigned},
                                      AttributeWord{"channel", Unsigned},
                                      AttributeWord{"mode"}};
constexpr std::array iio_elements{
    ElementWord{"input", pin_words},         ElementWord{"output", pin_words},
    ElementWord{"io_ctrl", pin_words},       ElementWord{"sio_ctrl", pin_words},
    ElementWord{"device", iio_device_words}, ElementWord{"range", range_words}};

constexpr std::array iio_int_device_words{AttributeWord{"driver"},
                                          AttributeWord{"channel", Unsigned},
                                          AttributeWord{"channel_name"},
                                          AttributeWord{"chan_extend_name"},
                                          AttributeWord{"hysteresis", Unsigned},
                                          AttributeWord{"lower_limit", Decimal},
                                          AttributeWord{"upper_limit", Decimal},
                                          AttributeWord{"limit_timeout", Unsigned},
                                          AttributeWord{"bitshift", Unsigned},
                                          AttributeWord{"integration_time", Decimal},
                                          AttributeWord{"one_threshold", Flag},
                                          AttributeWord{"mode"},
                                          AttributeWord{"shared_samplefreq"},
                                          AttributeWord{"shared_thresh_either_period"},
                                          AttributeWord{"cache_ad_value", Flag},
                                          AttributeWord{"pullup_when_supervised", Flag}};
constexpr std::array iio_int_elements{ElementWord{"input", pin_words},
                                      ElementWord{"output", pin_words},
                                      ElementWord{"io_ctrl", pin_words},
                                      ElementWord{"sio_ctrl", pin_words},
                                      ElementWord{"device", iio_int_device_words},
                                      ElementWord{"range", range_words}};

constexpr std::array sysfs_device_words{AttributeWord{"path"}, AttributeWord{"timeout", AnyBase},
                                        AttributeWord{"clear_flag", Flag},
                                        AttributeWord{"inverted", Flag}};
constexpr std::array sysfs_elements{ElementWord{"device", sysfs_device_words}};

constexpr std::array box_words{AttributeWord{"name"}};
constexpr std::array iobox_elements{ElementWord{"box", box_words}};

struct BackendWords {
  std::string_view name;
  std::span<const ElementWord> elements;
};

constexpr std::array backends{
    BackendWords{"virtual", {}},
    BackendWords{"gpio", gpio_elements},
    BackendWords{"spiadc", spiadc_elements},
    BackendWords{"spi", spi_elements},
    BackendWords{"iio", iio_elements},
    BackendWords{"iio-interrupt", iio_int_elements},
    BackendWords{"sysfs", sysfs_elements},
    BackendWords{"iobox", iobox_elements},
    BackendWords{"null", {}},
    BackendWords{"check", {}},
    BackendWords{"zwave", {}},
};

const BackendWords* find_backend(std::string_view name) {
  const auto found = std::ranges::find(backends, name, &BackendWords::name);
  return found != backends.end() ? &*found : nullptr;
}

bool is_signed(const std::string& text, guint base) {
  return g_ascii_string_to_signed(text.c_str(), base, G_MININT64, G_MAXINT64, nullptr, nullptr);
}

bool is_any_base(const std::string& text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    return is_signed(text.substr(2), 16);
  }
  return text.size() > 1 && text.starts_with('0') ? is_signed(text.substr(1), 8)
                                                  : is_signed(text, 10);
}

} // namespace

std::span<const ElementWord> common_vocabulary() {
  return common_elements;
}

std::span<const ElementWord> backend_vocabulary(std::string_view backend) {
  const auto* const found = find_backend(backend);
  return found != nullptr ? found->elements : std::span<const ElementWord>();
}

bool backend_known(std::string_view backend) {
  return find_backend(backend) != nullptr;
}

bool fits_form(std::string_view text, ValueForm form) {
  const std::string copy(text);
  switch (form) {
  case Text:
    return true;
  case PortText:
    return text.size() <= io_port_text_limit;
  case Decimal:
    return is_signed(copy, 10);
  case Unsigned:
    return !copy.starts_with('-') && is_signed(copy, 10);
  case AnyBase:
    return is_any_base(copy);
  case Hex:
    return is_signed(copy.starts_with("0x") ? copy.substr(2) : copy, 16);
  case Flag:
    return g_ascii_strcasecmp(copy.c_str(), "true") == 0
           || g_ascii_strcasecmp(copy.c_str(), "false") == 0;
  }
  return true;
}

} // namespace wexctl
