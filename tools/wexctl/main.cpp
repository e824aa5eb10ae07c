// The command line: what each verb is called, what it takes, and which function does it.
#include "wexctl/bus.h"
#include "wexctl/check.h"
#include "wexctl/complete.h"
#include "wexctl/describe.h"
#include "wexctl/descriptions.h"
#include "wexctl/help.h"
#include "wexctl/legacy.h"
#include "wexctl/live/live.h"
#include "wexctl/live/screen.h"
#include "wexctl/monitor.h"
#include "wexctl/output.h"
#include "wexctl/ports.h"
#include "wexctl/status.h"
#include "wexctl/supervised.h"
#include "wexctl/wait.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <functional>
#include <sstream>
#include <tuple>

using namespace wexctl;

namespace {

constexpr const char* description = R"(wexctl - look at and drive the I/O ports of wexd

Ports are told by number, by the name in the hardware description or by the name that users see of
the side in use, looked for in this order. A name that several ports have is refused.
`wexctl VERB --help` tells more of a verb, `wexctl --help-all` of all of them.)";

constexpr const char* footer = R"(Exit status of every verb:
  0  done
  1  the daemon refused, or `check` found something
  2  the command line makes no sense
  3  wexd does not answer, or went before the end that was waited for
  4  the time ran out
  5  standard output could not be written

Later releases add to these, to the keys of JSON (/usr/share/wexd/wexctl.schema.json) and to the
fields of formats; they change none.
Errors are one line on standard error: the daemon's message and, in brackets, its error name.
Colours are used on a terminal only, and never when NO_COLOR is set or TERM is dumb.)";

/// What the chosen verb was given.
struct Arguments {
  std::string port;
  std::string value;
  std::string property;
  std::vector<std::string> names;
  std::optional<std::string> text;
  std::string side;
  guint lower = 0;
  guint upper = 0;
  bool json = false;
  bool is_virtual = false;
  bool wait = false;
  bool daemon = false;
  std::string timeout;
  std::string idle_timeout;
  std::optional<std::string> format;
  std::optional<guint> count;
  std::vector<std::string> columns;
  bool initial = false;
  bool here = false;
  bool quiet = false;
  LiveOptions live;
};

/// Set by the verb that was chosen; runs it.
using Action = std::function<void()>;

// What was printed before the failure goes out first, and counts more if it cannot. An error
// without words has been told by what was printed.
int report(CommandError error) {
  if (error.status() != Status::Unwritable) {
    try {
      flush_output();
    } catch (const CommandError& unwritten) {
      error = unwritten;
    }
  }
  if (*error.what() != '\0') {
    fputs(fmt::format("wexctl: {}\n", printable(error.what())).c_str(), stderr);
  }
  return static_cast<int>(error.status());
}

// Says of a word what is wrong with it, nothing if it is a length of time.
std::string check_duration(const std::string& word) {
  return parse_duration(word)
             ? ""
             : fmt::format("'{}' is no length of time: write 500ms, 2s, 1m or 1h", word);
}

// Says of a word what is wrong with it, nothing if it is a number in the range.
auto whole_number(guint64 most, guint64 least = 0) {
  return [most, least](const std::string& word) {
    const bool right =
        g_ascii_string_to_unsigned(word.c_str(), 10, least, most, nullptr, nullptr) != FALSE;
    return right ? "" : fmt::format("'{}' is no whole number from {} to {}", word, least, most);
  };
}

class CommandLine {
public:
  CommandLine();
  int run(int argc, char** argv);

private:
  void perform(int argc, char** argv);
  [[nodiscard]] std::string mistake(const CLI::ParseError& error) const;
  CLI::App* verb(CLI::App& parent, const char* name, const char* help,
                 std::function<void(const Daemon&)> action);
  void add_port(CLI::App* verb) {
    verb->add_option("PORT", args_.port, "Number or name of the port")->required();
  }
  void add_json(CLI::App* verb) { verb->add_flag("--json", args_.json, "Print JSON"); }
  void add_side(CLI::App* verb) {
    verb->add_option("--side", args_.side, "Side of the port; by default the one in use")
        ->check(CLI::IsMember({"input", "output"}));
  }
  void add_timeout(CLI::App* verb, const char* help) {
    verb->add_option("--timeout", args_.timeout, help)->check(check_duration);
  }
  /// What was checked already.
  [[nodiscard]] static Timeout duration(const std::string& text) {
    return text.empty() ? Timeout() : parse_duration(text);
  }
  [[nodiscard]] Side side() const { return args_.side.empty() ? Side() : parse_side(args_.side); }

  void add_port_verbs();
  void add_setting_verbs();
  void add_sequence_verbs();
  [[nodiscard]] std::vector<Setting> settings() const;
  void add_wait_verb();
  void add_monitor_verb();
  void add_live_verb();
  [[nodiscard]] MonitorOptions monitor_options() const;
  void add_supervised_verbs();
  void add_other_verbs();

  CLI::App app_{description, "wexctl"};
  Arguments args_;
  Action action_;
};

CLI::App* CommandLine::verb(CLI::App& parent, const char* name, const char* help,
                            std::function<void(const Daemon&)> action) {
  CLI::App* const added = parent.add_subcommand(name, help);
  const bool nested = &parent != &app_;
  added->footer(verb_details(nested ? parent.get_name() + " " + name : name));
  added->callback([this, action = std::move(action)] {
    action_ = [action] {
      const Daemon daemon;
      action(daemon);
    };
  });
  return added;
}

// PORT STATE, or PORT=STATE any number of times; a name may hold the sign, too.
std::vector<Setting> CommandLine::settings() const {
  if (args_.names.size() == 1 && args_.names[0].find('=') == std::string::npos) {
    return {{.port = args_.port, .state = parse_state(args_.names[0])}};
  }
  std::vector<std::string> words{args_.port};
  words.insert(words.end(), args_.names.begin(), args_.names.end());
  std::vector<Setting> settings;
  for (const auto& word : words) {
    const auto sign = word.rfind('=');
    if (sign != std::string::npos) {
      settings.push_back(
          {.port = word.substr(0, sign), .state = parse_state(word.substr(sign + 1))});
    } else if (words.size() == 1) {
      throw CLI::RequiredError("STATE");
    } else {
      throw CLI::ValidationError(fmt::format("'{}' is not PORT=STATE", word));
    }
  }
  return settings;
}

void CommandLine::add_port_verbs() {
  auto* list = verb(app_, "list", "Show all ports", [this](const Daemon& daemon) {
    list_ports(daemon, args_.json, args_.columns);
  });
  auto* json = list->add_flag("--json", args_.json, "Print JSON");
  list->add_option("--columns", args_.columns,
                   "Some of " + CLI::detail::join(list_column_names(), ","))
      ->delimiter(',')
      ->check(CLI::IsMember(list_column_names()))
      ->excludes(json);

  auto* get = verb(app_, "get", "Show one port",
                   [this](const Daemon& daemon) { get_port(daemon, args_.port, args_.json); });
  add_port(get);
  add_json(get);

  auto* set = verb(app_, "set", "Drive outputs",
                   [this](const Daemon& daemon) { set_ports(daemon, settings()); });
  set->add_option("PORT", args_.port, "Number or name of the port, or PORT=STATE")->required();
  set->add_option("STATE", args_.names, "on or off, or more of PORT=STATE");
  // Said of the line as a whole, before anybody is asked.
  set->parse_complete_callback([this] { std::ignore = settings(); });

  auto* toggle = verb(app_, "toggle", "Turn outputs over",
                      [this](const Daemon& daemon) { toggle_ports(daemon, args_.names); });
  toggle->add_option("PORT", args_.names, "Numbers or names of the ports")->required();

  auto* virt = verb(app_, "virtual", "Announce a virtual state of a port",
                    [this](const Daemon& daemon) { set_virtual(daemon, args_.port, args_.value); });
  add_port(virt);
  virt->add_option("STATE", args_.value, "on or off")->required();

  auto* drop = verb(app_, "drop", "Take optional ports out of service",
                    [this](const Daemon& daemon) { drop_ports(daemon, args_.names, args_.json); });
  drop->add_option("NAME", args_.names, "Description names of the ports")->required();
  add_json(drop);

  verb(app_, "refresh", "Bring optional ports back whose hardware is there",
       [](const Daemon& daemon) { refresh_ports(daemon); });
}

void CommandLine::add_setting_verbs() {
  auto* direction =
      verb(app_, "direction", "Show or switch a port's direction",
           [this](const Daemon& daemon) { port_direction(daemon, args_.port, args_.value); });
  add_port(direction);
  direction->add_option("DIRECTION", args_.value, "input or output")
      ->check(CLI::IsMember({"input", "output"}));

  auto* active =
      verb(app_, "active", "Show or set the sense of a side: open is active low",
           [this](const Daemon& daemon) { port_active(daemon, args_.port, args_.value, side()); });
  add_port(active);
  active->add_option("SENSE", args_.value, "open or closed")
      ->check(CLI::IsMember({"open", "closed"}));
  add_side(active);

  auto* name =
      verb(app_, "name", "Show or set the name that users see",
           [this](const Daemon& daemon) { port_name(daemon, args_.port, args_.text, side()); });
  add_port(name);
  name->add_option("NAME", args_.text, "New name");
  add_side(name);

  auto* usage = verb(app_, "usage", "Show or set what a port is used for",
                     [this](const Daemon& daemon) { port_usage(daemon, args_.port, args_.text); });
  add_port(usage);
  usage->add_option("TEXT", args_.text, "New text");
}

void CommandLine::add_sequence_verbs() {
  auto* run =
      verb(app_, "run", "Run a sequence of states on an output", [this](const Daemon& daemon) {
        run_sequence(daemon, args_.port, args_.value, args_.is_virtual, args_.wait);
      });
  add_port(run);
  run->add_option("SEQUENCE", args_.value,
                  "STATE:TIME[,STATE:TIME...][xTIMES], e.g. 1:500ms,0:2sx10")
      ->required();
  run->add_flag("--virtual", args_.is_virtual, "Announce virtual states instead of driving");
  run->add_flag("--wait", args_.wait, "Return when the sequence has ended");

  auto* pulse =
      verb(app_, "pulse", "Switch an output on for a while", [this](const Daemon& daemon) {
        run_sequence(daemon, args_.port, "1:" + args_.value + ",0:0", false, args_.wait);
      });
  add_port(pulse);
  pulse
      ->add_option("TIME", args_.value, "How long, e.g. 500ms or 2s; a bare number is milliseconds")
      ->required()
      ->check(check_duration);
  pulse->add_flag("--wait", args_.wait, "Return when the pulse has ended");

  auto* stop =
      verb(app_, "stop", "Stop the sequence that runs on a port",
           [this](const Daemon& daemon) { stop_sequence(daemon, args_.port, args_.text); });
  add_port(stop);
  stop->add_option("STATE", args_.text, "on or off; by default the state that the port has");
}

void CommandLine::add_wait_verb() {
  auto* wait = verb(app_, "wait", "Wait for a state of a port, or for the daemon",
                    [this](const Daemon& daemon) {
                      const auto timeout = duration(args_.timeout);
                      args_.daemon ? wait_for_daemon(daemon, timeout)
                                   : wait_for_port(daemon, args_.port, args_.text, timeout);
                    });
  auto* port = wait->add_option("PORT", args_.port, "Number or name of the port");
  wait->add_option("STATE", args_.text,
                   "on, off, open, closed, short or cut; by default any change")
      ->check(CLI::IsMember(std::vector<std::string>(wait_states.begin(), wait_states.end())));
  auto* daemon = wait->add_flag("--daemon", args_.daemon, "Wait until wexd answers");
  port->excludes(daemon);
  add_timeout(wait, "Give up after so long (status 4), e.g. 5s; 0 looks once");
  wait->parse_complete_callback([port, daemon] {
    if (port->empty() && daemon->empty()) {
      throw CLI::RequiredError("PORT");
    }
  });
}

MonitorOptions CommandLine::monitor_options() const {
  return {.format = args_.format ? LineFormat::fields(*args_.format)
                    : args_.json ? LineFormat::json()
                                 : LineFormat::text(),
          .ports = args_.names,
          .initial = args_.initial,
          .quiet = args_.quiet,
          .count = args_.count,
          .idle_timeout = duration(args_.idle_timeout),
          .timeout = duration(args_.timeout)};
}

void CommandLine::add_monitor_verb() {
  auto* verb_app = verb(app_, "monitor", "Show changes as they happen, until interrupted",
                        [this](const Daemon& daemon) { monitor(daemon, monitor_options()); });
  verb_app->add_option("PORT", args_.names, "Ports to show; by default all");
  verb_app->add_flag("--initial", args_.initial, "Begin with the present states");
  verb_app->add_flag("--quiet", args_.quiet, "Do not say that the watch begins");
  verb_app->add_option("--count", args_.count, "End after so many lines about ports")
      ->check(whole_number(G_MAXUINT32, 1));
  verb_app
      ->add_option("--idle-timeout", args_.idle_timeout,
                   "End after so long without a line, e.g. 5s")
      ->check(check_duration);
  add_timeout(verb_app, "End after so long, with status 4");
  auto* json = verb_app->add_flag("--json", args_.json, "Print JSON, an object on each line");
  verb_app->add_option("--format", args_.format, "How a line reads, e.g. '{time} {name} {state}'")
      ->check(format_mistake)
      ->excludes(json);
}

void CommandLine::add_live_verb() {
  auto* screen = verb(app_, "live", "Show ports and changes on the whole terminal",
                      [this](const Daemon& daemon) { live(daemon, args_.live); });
  screen->add_flag("--control", args_.live.control, "Let keys drive outputs");
  screen->add_option("--keys", args_.live.keys, "File with keys that run commands");
  screen->add_option("--notes", args_.live.notes, "Pipe whose lines are shown among the changes");
  screen->parse_complete_callback(require_terminal);
}

void CommandLine::add_supervised_verbs() {
  auto* supervised =
      app_.add_subcommand("supervised", "Supervised inputs: show, on, off, ranges, read");
  supervised->require_subcommand(1);

  auto* show =
      verb(*supervised, "show", "Readings and ranges of all supervisable ports, or one",
           [this](const Daemon& daemon) { supervised_show(daemon, args_.text, args_.json); });
  show->add_option("PORT", args_.text, "Number or name of the port");
  add_json(show);

  add_port(verb(*supervised, "on", "Switch supervision on",
                [this](const Daemon& daemon) { supervised_switch(daemon, args_.port, true); }));
  add_port(verb(*supervised, "off", "Switch supervision off",
                [this](const Daemon& daemon) { supervised_switch(daemon, args_.port, false); }));

  auto* ranges =
      verb(*supervised, "ranges", "Show a port's ranges, or add one", [this](const Daemon& daemon) {
        supervised_ranges(daemon, args_.port, args_.value, args_.lower, args_.upper, args_.json);
      });
  add_port(ranges);
  auto* state = ranges->add_option("STATE", args_.value, "open, closed, short or cut");
  auto* lower = ranges->add_option("LOWER", args_.lower, "Lower limit, included")
                    ->check(whole_number(G_MAXUINT32));
  auto* upper = ranges->add_option("UPPER", args_.upper, "Upper limit, included")
                    ->check(whole_number(G_MAXUINT32));
  state->needs(lower)->needs(upper);
  add_json(ranges);

  auto* read =
      verb(*supervised, "read", "State and level of a line now",
           [this](const Daemon& daemon) { supervised_read(daemon, args_.port, args_.json); });
  add_port(read);
  add_json(read);
}

void CommandLine::add_other_verbs() {
  add_json(verb(app_, "status", "Show how wexd is: ports missing, sequences, services, saves",
                [this](const Daemon& daemon) { show_status(daemon, args_.json); }));
  args_.property.clear();
  auto* connectors = verb(
      app_, "connectors", "Count connectors and show their states", [this](const Daemon& daemon) {
        show_connectors(daemon, args_.value.empty() ? "all" : args_.value, args_.json);
      });
  connectors->add_option("KIND", args_.value, "video, audio or all");
  add_json(connectors);

  auto* legacy = app_.add_subcommand("legacy", "Legacy configuration properties: get, set");
  legacy->require_subcommand(1);
  auto* legacy_get_verb = verb(
      *legacy, "get", "Show a port's properties, or one of them",
      [this](const Daemon& daemon) { legacy_get(daemon, args_.port, args_.property, args_.json); });
  add_port(legacy_get_verb);
  legacy_get_verb->add_option("PROPERTY", args_.property, "e.g. Usage or Output.Name");
  add_json(legacy_get_verb);
  auto* legacy_set_verb = verb(*legacy, "set", "Set a property", [this](const Daemon& daemon) {
    legacy_set(daemon, args_.port, args_.property, args_.value);
  });
  add_port(legacy_set_verb);
  legacy_set_verb->add_option("PROPERTY", args_.property, "e.g. Usage or Output.Name")->required();
  legacy_set_verb->add_option("VALUE", args_.value, "New value")->required();

  auto* check = app_.add_subcommand(
      "check", "Read hardware descriptions and tell what wexd would make of them");
  check->add_option(
      "FILE", args_.names,
      "Files, in the order in which wexd reads them; without any, those that it reads");
  add_json(check);
  check->add_flag("--here", args_.here, "Look for the hardware on this machine, too");
  check->footer(verb_details("check"));
  check->callback([this] {
    action_ = [this] {
      const auto files = args_.names.empty() ? description_files() : args_.names;
      if (!check_files(files, args_.here, args_.json)) {
        throw CommandError(Status::Refused, "");
      }
    };
  });

  auto* describe =
      app_.add_subcommand("describe", "Print a description of what is here to start from");
  describe->footer(verb_details("describe"));
  describe->callback([this] { action_ = describe_machine; });
}

CommandLine::CommandLine() {
  app_.formatter(std::make_shared<HelpFormatter>());
  app_.require_subcommand(1);
  app_.set_help_all_flag("--help-all", "Show the help of every verb");
  app_.footer(footer);
  app_.set_version_flag("--version", WEXCTL_VERSION);
  add_port_verbs();
  add_setting_verbs();
  add_sequence_verbs();
  add_wait_verb();
  add_monitor_verb();
  add_live_verb();
  add_supervised_verbs();
  add_other_verbs();
}

// One line that names what is wrong, and where to read of it. A word too many says more than what
// is missing because of it.
std::string CommandLine::mistake(const CLI::ParseError& error) const {
  const CLI::App* verb = &app_;
  std::string name = app_.get_name();
  while (!verb->get_subcommands().empty()) {
    verb = verb->get_subcommands().front();
    name += " " + verb->get_name();
  }
  const bool takes_verbs = !verb->get_subcommands({}).empty();
  std::string what = takes_verbs ? "VERB is required" : error.what();
  if (const auto words = app_.remaining(true); !words.empty()) {
    const char* const kind = words.front().starts_with('-') ? "no option"
                             : takes_verbs                  ? "no verb"
                                                            : "one argument too many";
    what = fmt::format("'{}' is {}", words.front(), kind);
  }
  return fmt::format("{}; see {} --help", what, name);
}

void CommandLine::perform(int argc, char** argv) {
  // What is being typed is no command line yet.
  if (argc > 1 && g_str_equal(argv[1], complete_verb)) {
    print_completions(app_, {argv + 2, argv + argc});
    return;
  }
  try {
    app_.parse(argc, argv);
  } catch (const CLI::Success& question) {
    std::ostringstream answer;
    app_.exit(question, answer, answer);
    print_text(answer.str());
    return;
  } catch (const CLI::ParseError& error) {
    throw CommandError(Status::Usage, mistake(error));
  }
  action_();
}

int CommandLine::run(int argc, char** argv) {
  try {
    perform(argc, argv);
    flush_output();
  } catch (const CommandError& error) {
    return report(error);
  }
  return static_cast<int>(Status::Ok);
}

} // namespace

int main(int argc, char** argv) {
  hold_standard_streams();
  return CommandLine().run(argc, argv);
}
