#include "options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>

#include "errors.h"

namespace qxbus {

namespace {

const std::map<std::string, Command> kCommands = {
    {"list", Command::list}, {"echo", Command::echo}, {"stats", Command::stats}, {"publish", Command::publish}};

// Which options each command accepts; --root and --help are accepted everywhere.
const std::map<Command, std::set<std::string>> kAllowed = {
    {Command::list, {"--timeout"}},
    {Command::echo, {"--flow", "--json", "--count", "--timeout"}},
    {Command::stats, {"--duration"}},
    {Command::publish, {"--flow", "--count", "--wait", "--interval"}},
};

const std::set<std::string> kFlags = {"--json", "--help", "-h"};

std::uint64_t parseCount(const std::string &option, const std::string &text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        throw UsageError(option + " needs a positive whole number, got \"" + text + "\"");
    errno = 0;
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (errno == ERANGE || value == 0)
        throw UsageError(option + " needs a positive whole number, got \"" + text + "\"");
    return value;
}

// Seconds as a decimal number; zero is allowed only where it means "do not wait".
double parseSeconds(const std::string &option, const std::string &text, bool allowZero) {
    char *end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    const bool wellFormed = !text.empty() && end == text.c_str() + text.size() && errno == 0 && std::isfinite(value);
    if (!wellFormed || value < 0 || (!allowZero && value == 0))
        throw UsageError(option + " needs a number of seconds" + (allowZero ? "" : " above 0") + ", got \"" + text +
                         "\"");
    return value;
}

const char *commandName(Command command) {
    for (const auto &[name, value] : kCommands)
        if (value == command) return name.c_str();
    return "qxbus";
}

void applyOption(Options &options, const std::string &name, const std::string &value) {
    if (name == "--root") {
        if (value.empty()) throw UsageError("--root needs a directory");
        options.root = value;
    } else if (name == "--flow") {
        options.flow = value;
    } else if (name == "--json") {
        options.jsonOutput = true;
    } else if (name == "--count") {
        options.count = parseCount(name, value);
    } else if (name == "--timeout") {
        options.timeoutSeconds = parseSeconds(name, value, false);
    } else if (name == "--duration") {
        options.durationSeconds = parseSeconds(name, value, false);
    } else if (name == "--wait") {
        options.waitSeconds = parseSeconds(name, value, true);
    } else if (name == "--interval") {
        options.intervalSeconds = parseSeconds(name, value, true);
    }
}

} // namespace

Options parseOptions(const std::vector<std::string> &args) {
    Options options;
    std::optional<Command> command;
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> given;
    bool help = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &arg = args[i];
        // "--" ends the options, so a JSON text or tag group may start with a dash.
        if (arg == "--") {
            positional.insert(positional.end(), args.begin() + static_cast<long>(i) + 1, args.end());
            break;
        }
        // A leading dash followed by a digit is a negative number, not an option.
        if (arg.size() > 1 && arg[0] == '-' && !std::isdigit(static_cast<unsigned char>(arg[1]))) {
            std::string name = arg;
            std::optional<std::string> value;
            if (const auto eq = arg.find('='); eq != std::string::npos) {
                name = arg.substr(0, eq);
                value = arg.substr(eq + 1);
            }
            if (name == "--help" || name == "-h") {
                help = true;
                continue;
            }
            const bool known = name == "--root" || kFlags.count(name) ||
                               std::any_of(kAllowed.begin(), kAllowed.end(),
                                           [&](const auto &entry) { return entry.second.count(name) > 0; });
            if (!known) throw UsageError("unknown option " + name);
            if (kFlags.count(name)) {
                if (value) throw UsageError(name + " takes no value");
                given.emplace_back(name, "");
                continue;
            }
            if (!value) {
                if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
                value = args[++i];
            }
            given.emplace_back(name, *value);
            continue;
        }
        if (!command) {
            const auto found = kCommands.find(arg);
            if (found == kCommands.end()) throw UsageError("unknown command \"" + arg + "\"");
            command = found->second;
            continue;
        }
        positional.push_back(arg);
    }

    if (help) return options; // Command::help
    if (!command) throw UsageError("no command given");
    options.command = *command;

    for (const auto &[name, value] : given) {
        if (name != "--root" && !kAllowed.at(*command).count(name))
            throw UsageError("option " + name + " does not apply to " + commandName(*command));
        applyOption(options, name, value);
    }

    const std::size_t expected = *command == Command::echo ? 1 : *command == Command::publish ? 2 : 0;
    if (positional.size() < expected) {
        throw UsageError(std::string(commandName(*command)) + (*command == Command::publish
                                                                   ? " needs a tag group and a JSON record"
                                                                   : " needs a tag group"));
    }
    if (positional.size() > expected) throw UsageError("unexpected argument \"" + positional[expected] + "\"");
    if (expected >= 1) {
        options.tagGroup = positional[0];
        if (options.tagGroup.empty()) throw UsageError("the tag group name is empty");
    }
    if (expected == 2) options.json = positional[1];
    return options;
}

std::string usageText() {
    return R"(Usage: qxbus [--root DIR] <command> [options]

Look at and talk to the tag groups on the bus.

Commands:
  list [--timeout S]
      Things and tag groups present on the bus, found by discovery within S
      seconds (default 3).
  echo <TagGroup> [--flow ID] [--json] [--count N] [--timeout S]
      Print the records of a tag group as they arrive: readable text, or one
      JSON object per line with --json. --flow reads one flow only (default:
      every flow). Stops after N records, after S seconds, or on Ctrl-C.
  stats [--duration S]
      Rate (samples/s) and bandwidth (bytes/s) of every tag group defined
      under the configuration root, measured over S seconds (default 5).
  publish <TagGroup> <json> [--flow ID] [--count N] [--wait S] [--interval S]
      Publish a record given as a JSON object, N times (default 1), S seconds
      apart (--interval, default 0). Waits up to --wait seconds (default 5)
      for a subscriber first. --flow sets the flow (context id); by default
      the one of the plug-in's properties file for that tag group.
      Value kinds come from the field kinds of the tag-group definition; any
      value may also be typed explicitly: {"uint32": 5}, {"int32": -1},
      {"int64": 7}, {"float32": 0.5}, {"string": "x"}, {"byte_seq": [1, 2]},
      {"nvp_seq": {...} or [...]}. See docs/tool.md.

A <TagGroup> is a tag-group name (VideoFrameData), a qualified name
(com.vision.data:VideoFrameData) or a topic (com.vision.data.IXOPipe).

Options for every command:
  --root DIR   configuration root to use; otherwise the first of ".",
               "/opt/quorix/ixo", "/src/common/data_model",
               "./common/data_model", $IXO_ROOT that holds config/Marlet.xml
  -h, --help   show this text

Exit codes: 0 done, 1 runtime failure (e.g. nothing received before the
timeout, bus or configuration error), 2 bad arguments or bad JSON.
)";
}

} // namespace qxbus
