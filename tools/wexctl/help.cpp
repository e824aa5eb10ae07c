#include "wexctl/help.h"

#include <glib.h>

#include <algorithm>
#include <array>

namespace wexctl {

namespace {

struct Details {
  std::string_view verb;
  std::string_view text;
};

constexpr std::array details{
    Details{
        "list",
        R"(Shows each port's number, its name in the hardware description, the name that users see, its
direction, its state, the sense of the side in use, its usage and its properties. JSON has both
sides. On a terminal a table is no wider than that, and what is left out of a cell is marked.
Example: wexctl list --columns no,shown,state)"},
    Details{"get", R"(Example: wexctl get relay)"},
    Details{
        "set",
        R"(States are on and off; 1, 0, true and false will do. Inputs cannot be driven. Several ports are
told as PORT=STATE, are all looked up before the first is driven, and are driven in that order.
Example: wexctl set relay=on lamp=off)"},
    Details{"toggle", R"(All ports are looked up before the first is driven.
Example: wexctl toggle relay lamp)"},
    Details{
        "virtual",
        R"(Announces the state of any port to everyone who listens, and drives no hardware. A virtual port has
nothing else, and keeps the state.
Example: wexctl virtual manualtrigger1 on)"},
    Details{
        "drop",
        R"(Only ports that the hardware description calls optional can go, by the name that they have there.
Prints the names of those that went; if some stay, the exit status is 1.
Example: wexctl drop extension)"},
    Details{"refresh", R"(Tries every optional port that is out of service.)"},
    Details{
        "direction",
        R"(Without DIRECTION shows it. Only the ports that the list calls switchable can be switched.
Example: wexctl direction configurable input)"},
    Details{
        "active",
        R"(Without SENSE shows both sides. With closed, the port is on while its circuit is closed; with open,
while it is open: the port is active low.
Example: wexctl active relay open)"},
    Details{"name",
            R"(Without NAME shows the names of both sides. An empty NAME takes the name away.
Example: wexctl name relay 'Garage gate')"},
    Details{"usage", R"(Without TEXT shows it. An empty TEXT takes it away.
Example: wexctl usage relay 'Opens the gate')"},
    Details{
        "run",
        R"(Each step is a state, on or off, 1 or 0, and how long it lasts, e.g. 500ms, 2s, 1m or 1h; a bare
number is milliseconds. xTIMES repeats all of them. The daemon runs the steps, and the port keeps
the state of the last. A port that runs a sequence is busy and refuses another; `wexctl stop` ends
it. A step of more than 35 minutes is told to the daemon as several of the same state.
Example: wexctl run lamp 1:500ms,0:200msx5 --wait)"},
    Details{"pulse",
            R"(The same as running the sequence 1:TIME,0:0. Returns at once, unless there is --wait.
Example: wexctl pulse lamp 500ms)"},
    Details{
        "stop",
        R"(The port keeps the state that it has, or takes the one given; its line does not turn in between.
Nothing happens to a port on which no sequence runs, but for the STATE.

A sequence ends also after its last step, with a change of the port's direction, sense, supervision
or ranges, when the port is dropped, and with the daemon. `set` does not end it: the state comes in
between two steps and lasts until the next one. Another sequence is refused while one runs.
Example: wexctl stop lamp off)"},
    Details{
        "wait",
        R"(Returns when the port is in the STATE, at once if it is in it already; a state that came and went
while it was waited for counts, too. Without STATE it returns with the next change that is told of
the port, virtual states included. A port that leaves service meanwhile is waited for. Ends with
status 3 when wexd goes.

Open and closed are said of circuits, not of doors: of the line of a supervised port, and of the
contact of any other. To wait for a door, wait for on or off, whichever `wexctl list` shows while it
stands open. Short and cut, a line that is shorted or broken, are for supervised ports.
Example: wexctl wait door off --timeout 10s)"},
    Details{
        "supervised show",
        R"(A line that is short is shorted, and one that is cut is broken; `wexctl list` shows that too. Levels
and limits are counts of the port's converter; a line that another service measures has neither.)"},
    Details{"supervised on", R"(A switchable port that is an output becomes an input.
Example: wexctl supervised on window)"},
    Details{"supervised off", R"(The line is read as a plain input again.)"},
    Details{
        "supervised ranges",
        R"(Without STATE shows them. With it, levels from LOWER to UPPER mean STATE from now on; LOWER must be
less than UPPER, and UPPER less than 65536. Where ranges overlap the later one counts, and a level
in none of them is undefined.
Example: wexctl supervised ranges window cut 3200 4095)"},
    Details{"supervised read",
            R"(Prints the state (open, closed, short, cut or undefined) and the level.)"},
    Details{
        "status",
        R"(Shows the version and since when it runs, its bus names, how many of the described ports are in
service, which are missing and why as far as known, the ports on which sequences run, which of the
services that it calls are there, and the last save of settings that failed.)"},
    Details{"connectors", R"(KIND is video, audio or all, which is the default.)"},
    Details{
        "monitor",
        R"(One line for each change of a state, end of a sequence, and change of a setting, with the time and
the port's name. A daemon that goes is waited for, and both its going and its return are told. Lines
about wexd itself do not count. A full count, an idle end and an interrupt are status 0.

A format has, in braces, time, kind, port, name, state, direction, interface, property, value and
text, which is what people are shown; a brace of its own is written twice. What a line lacks is
empty. The kind, which --json calls event, is port-changed, sequence-done, setting-changed, initial,
watching, daemon-absent, daemon-gone or daemon-back. The state is on or off, or that of a supervised
line: open, closed, short, cut or undefined. Times are as RFC 3339 has them.
Example: wexctl monitor door relay --initial --count 2 --format '{time} {name} is {state}')"},
    Details{
        "live",
        R"(Shows ports, supervised lines, changes and the services around until q is pressed; ? shows the
keys. It only looks unless there is --control. A daemon that goes is waited for.

Lines of a file of --keys are KEY FOR HINT COMMAND: a character, space, enter or f1 to f12; always,
port, input, output, switchable, supervisable or missing, which is the kind of port that the key is
for; a word for the screen; and what /bin/sh runs, with the number of the chosen port in WEXCTL_PORT
and its description name in WEXCTL_NAME. A key that drives the port comes before. What a command that
fails says on standard error is shown. A line may be: o input open wexctl pulse lock 3s

The notes may be those of the journal: --notes <(journalctl -fn0 -u wexd).
Example: wexctl live --control)"},
    Details{
        "legacy get",
        R"(Without PROPERTY shows all of the port. A property that only one interface has needs no prefix.
Example: wexctl legacy get relay PulseTime)"},
    Details{"legacy set", R"(Takes effect and is saved like the same setting made any other way.
Example: wexctl legacy set relay Output.PulseTime 750)"},
    Details{
        "check",
        R"(Prints FILE:LINE: SEVERITY: TEXT for everything that the daemon would ignore, replace or drop
(warning) or cannot read or survive (error); a note is worth knowing and no more. The exit status
is 1 if there is a warning or an error. The daemon need not run; its unit does the same before each
start, so that the findings stand in the journal.

With --here it also tells of pins, converters, device nodes and attribute files that are not on this
machine or that the user who asks cannot open; of a port that may be absent, that is a note.
Example: wexctl check /usr/share/wexd/conf.xml)"},
    Details{
        "describe",
        R"(Prints a hardware description whose comments tell of the GPIO chips and lines, converters and SPI
nodes of this machine, each with a port to be completed. The daemon need not run.
Example: wexctl describe)"},
};

// Every line further in by as much.
std::string indented(std::string_view text, std::string_view by) {
  std::string lines;
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size() - 1) + 1;
    lines += text.front() == '\n' ? "" : by;
    lines += text.substr(0, end);
    text.remove_prefix(end);
  }
  return lines;
}

// The example in a paragraph of its own.
std::string spaced(std::string text) {
  constexpr std::string_view mark = "\nExample: ";
  if (const auto at = text.find(mark); at != std::string::npos) {
    text.insert(at, "\n");
  }
  return text;
}

// The words after the program's name: "supervised ranges".
std::string full_name(const CLI::App* verb) {
  std::string name = verb->get_name();
  for (const CLI::App* over = verb->get_parent(); over != nullptr && over->get_parent() != nullptr;
       over = over->get_parent()) {
    name.insert(0, over->get_name() + " ");
  }
  return name;
}

} // namespace

std::string verb_details(std::string_view verb) {
  const auto* const found = std::ranges::find(details, verb, &Details::verb);
  g_assert(found != details.end());
  return std::string(found->text);
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
  return option->get_positional() ? "" : CLI::Formatter::make_option_opts(option);
}

std::string HelpFormatter::make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const {
  if (mode != CLI::AppFormatMode::All) {
    return CLI::Formatter::make_subcommands(app, mode);
  }
  std::string text;
  for (const CLI::App* verb : app->get_subcommands({})) {
    text += verb->get_group().empty() ? "" : "\n" + make_expanded(verb);
  }
  return text;
}

// A heading with a colon, paragraphs further in and a blank between them: what help2man makes a
// subsection of. A verb that holds others is those.
std::string HelpFormatter::make_expanded(const CLI::App* verb) const {
  std::string text;
  for (const CLI::App* inner : verb->get_subcommands({})) {
    text += (text.empty() ? "" : "\n") + make_expanded(inner);
  }
  if (!text.empty()) {
    return text;
  }
  text = usage_of(verb) + ":\n  " + verb->get_description() + ".\n\n";
  for (const CLI::Option* option : verb->get_options()) {
    if (option != verb->get_help_ptr() && option != verb->get_help_all_ptr()) {
      text += make_option(option, option->get_positional());
    }
  }
  if (!text.ends_with("\n\n")) {
    text += "\n";
  }
  return text + indented(spaced(verb_details(full_name(verb))), "  ") + "\n";
}

std::string HelpFormatter::usage_of(const CLI::App* verb) const {
  const std::string usage = make_usage(verb, "wexctl " + full_name(verb));
  const auto start = usage.find("wexctl");
  return usage.substr(start, usage.find('\n', start) - start);
}

} // namespace wexctl
