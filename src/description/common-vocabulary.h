// The elements of every port, whatever its hardware, and those that several kinds of hardware have.
#pragma once

#include "description/vocabulary.h"

#include <array>

// -- every port
// ------------------------------------------------------------------------------------

inline constexpr std::array port_type_names{"input", "output", "io_ctrl"};
inline constexpr std::array direction_names{"input", "output"};
inline constexpr std::array port_mode_names{"bistable", "monostable"};
inline constexpr std::array button_type_names{"none", "pulse", "actinact"};
inline constexpr std::array value_type_names{"int", "bool", "double", "string"};

/// The events that the daemon declares by itself; key values have no say in them.
inline constexpr std::array builtin_event_names{"IOPort", "PortAny",
                                                "com.norv.Event.Wxd.SupervisedPort"};
/// Values that stand for what the port is at that moment.
inline constexpr std::array placeholder_names{"PORT_STATUS", "PORT_ACTIVE", "PORT_INACTIVE",
                                              "PORT_SUPERVISED_STATUS"};

inline constexpr std::array port_attributes{
    AttributeWord{"hwid", ValueForm::Text,
                  "Hardware ids that have the port, as prefixes separated by colons; must be the "
                  "first attribute. On other hardware the port is skipped."},
    AttributeWord{.name = "name",
                  .form = ValueForm::PortText,
                  .meaning = "Identity of the port: group of its settings in wexd.conf, and what "
                             "DropIOPorts takes.",
                  .required = true},
    AttributeWord{"optional", ValueForm::Switch,
                  "Whether the port may fail its set-up; it then waits until a refresh finds its "
                  "hardware."},
};

inline constexpr std::array port_number_attributes{
    AttributeWord{.name = "nbr",
                  .form = ValueForm::Decimal,
                  .meaning = "0-based; user-visible default names show it plus one.",
                  .required = true},
};

inline constexpr std::array port_type_attributes{
    AttributeWord{"type", ValueForm::Words, "io_ctrl can be switched between input and output.",
                  port_type_names, true},
};

inline constexpr std::array default_attributes{
    AttributeWord{"dir", ValueForm::WordsInAnyCase, "Direction of an io_ctrl port.",
                  direction_names},
    AttributeWord{"port_mode", ValueForm::WordsInAnyCase, "How clients should drive the output.",
                  port_mode_names},
    AttributeWord{"button_type", ValueForm::WordsInAnyCase, "What a button for the port should do.",
                  button_type_names},
    AttributeWord{"pulse_time", ValueForm::Unsigned, "Length of a pulse in milliseconds."},
    AttributeWord{"usage", ValueForm::PortText, "What the port is used for."},
};

inline constexpr std::array default_name_attributes{
    AttributeWord{"input", ValueForm::PortText, "Name of the input side."},
    AttributeWord{"output", ValueForm::PortText, "Name of the output side."},
};

inline constexpr auto property_form = ValueForm::Mark;
inline constexpr std::array property_attributes{
    AttributeWord{"ioport", property_form,
                  "An I/O port proper: addressable by number, counted, saved."},
    AttributeWord{"virtual", property_form, "A port without a line; addressable by number."},
    AttributeWord{"hidden", property_form, "Not to be shown to users."},
    AttributeWord{"readonly", property_form, "Name, usage and inversion cannot be changed."},
    AttributeWord{"readonly_Name", property_form, "The names cannot be changed."},
    AttributeWord{"readonly_Usage", property_form, "The usage cannot be changed."},
    AttributeWord{"readonly_Trig", property_form,
                  "The inversion of the input side cannot be changed."},
    AttributeWord{"readonly_Active", property_form,
                  "The inversion of the output side cannot be changed."},
    AttributeWord{"video_connector", property_form, "The port is a video connector."},
    AttributeWord{"audio_connector", property_form, "The port is an audio connector."},
};

inline constexpr std::array event_attributes{
    AttributeWord{.name = "declaration",
                  .form = ValueForm::Text,
                  .meaning = "Type of the event.",
                  .required = true},
    AttributeWord{"input", ValueForm::Flag, "Applies while the port is an input (default true)."},
    AttributeWord{"output", ValueForm::Flag, "Applies while the port is an output (default true)."},
    AttributeWord{"supervised_input", ValueForm::Flag,
                  "Applies while the port is a supervised input (default false); an unchanged "
                  "value is then not sent again."},
    AttributeWord{"declare_only", ValueForm::Flag,
                  "Declare the event, but never send it (default false)."},
};

inline constexpr std::array key_value_attributes{
    AttributeWord{
        .name = "key", .form = ValueForm::Text, .meaning = "Name of the key.", .required = true},
    AttributeWord{"value", ValueForm::Text, "Value, or a placeholder."},
    AttributeWord{"type", ValueForm::JudgedWords,
                  "Type of the value, string unless given; a placeholder cannot be a double.",
                  value_type_names},
    AttributeWord{"property", ValueForm::Flag,
                  "Marks the key that carries the state; only it is filled when the event is "
                  "sent."},
    AttributeWord{"key-nice-name", ValueForm::Text,
                  "Name of the key for users; PORT_NAME stands for the port's name."},
    AttributeWord{"value-nice-name", ValueForm::Text,
                  "Name of the value for users; PORT_NAME stands for the port's name."},
};

inline constexpr std::array backend_attributes{
    AttributeWord{.name = "name",
                  .form = ValueForm::Text,
                  .meaning = "The kind of hardware.",
                  .required = true},
};

inline constexpr std::array first_virtual_input_attributes{
    AttributeWord{.name = "nbr",
                  .form = ValueForm::Decimal,
                  .meaning = "Number of the port of channel 1; the ports of the others follow.",
                  .required = true},
};

inline constexpr std::array common_elements{
    ElementWord{"port",
                "One port. A later port whose first attribute (after hwid) is the name of an "
                "earlier one replaces it.",
                port_attributes, Occurs::AnyTimes},
    ElementWord{"port_no", "The number by which clients address the port.", port_number_attributes,
                Occurs::Once},
    ElementWord{"port_type", "The kind of port.", port_type_attributes, Occurs::Once},
    ElementWord{"param_defaults", "Settings that the user has not changed.", default_attributes},
    ElementWord{"param_default_name",
                "Names that users see. A port without one is called \"Port\" and its number plus "
                "one.",
                default_name_attributes},
    ElementWord{"properties",
                "Boolean marks of the port, shown to clients. Other names are allowed and passed "
                "on.",
                property_attributes, Occurs::AnyTimes, &property_form},
    ElementWord{"backend", "What drives the port.", backend_attributes, Occurs::Once},
    ElementWord{"event",
                "An event of the port. IOPort, PortAny and com.norv.Event.Wxd.SupervisedPort are "
                "built in; other declarations take their keys from here.",
                event_attributes, Occurs::AnyTimes},
    ElementWord{"keyvalue",
                "One key of the event. The values PORT_STATUS, PORT_ACTIVE, PORT_INACTIVE and "
                "PORT_SUPERVISED_STATUS stand for what the port is at that moment.",
                key_value_attributes, Occurs::AnyTimes},
    ElementWord{"first_virtual_input",
                "Switches the manual-trigger ports of video channels on. Must come after a port.",
                first_virtual_input_attributes, Occurs::AnyTimes},
};

// -- several kinds of hardware
// ---------------------------------------------------------------------

inline constexpr std::array pin_attributes{
    AttributeWord{"pin", ValueForm::Decimal, "GPIO number."},
    AttributeWord{"alias", ValueForm::Text, "Name of the line; preferred to the number."},
    AttributeWord{"inverted", ValueForm::Switch,
                  "true: active low; false: active high; without it the kernel's setting stays."},
};

inline constexpr std::array supervised_state_names{"open", "closed", "short", "cut"};

inline constexpr std::array range_attributes{
    AttributeWord{"state", ValueForm::JudgedWords, "The state.", supervised_state_names, true},
    AttributeWord{.name = "lower",
                  .form = ValueForm::Unsigned,
                  .meaning = "Lowest level, included; before upper.",
                  .required = true},
    AttributeWord{.name = "upper",
                  .form = ValueForm::Unsigned,
                  .meaning = "Highest level, included, below 65536; must be the last attribute.",
                  .required = true},
};

/// Of a measured line.
inline constexpr ElementWord supervised_input_element{
    "input", "Pin that reads the line while it is not supervised.", pin_attributes};
inline constexpr ElementWord output_element{"output", "Pin that drives the line.", pin_attributes};
inline constexpr ElementWord supervised_io_ctrl_element{
    "io_ctrl", "Pin that routes the line to the logic input.", pin_attributes};
inline constexpr ElementWord sio_ctrl_element{
    "sio_ctrl", "Pin that routes the line to the measuring circuit.", pin_attributes};
inline constexpr ElementWord range_element{
    "range", "Levels that mean a state. Where ranges overlap, the later counts.", range_attributes,
    Occurs::AnyTimes};

/// The pins without which a measured line cannot be set up.
inline constexpr std::array supervised_pin_needs{
    PinNeed{.element = "input", .of_inputs = true, .of_outputs = false, .of_configurables = true},
    PinNeed{.element = "output", .of_inputs = false, .of_outputs = true, .of_configurables = true},
    PinNeed{.element = "io_ctrl", .of_inputs = true, .of_outputs = false, .of_configurables = true},
    PinNeed{.element = "sio_ctrl",
            .of_inputs = true,
            .of_outputs = false,
            .of_configurables = true,
            .is_fatal = true},
};
