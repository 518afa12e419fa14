// qxbus: a command-line window onto the bus for people debugging a deployment.

#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "errors.h"
#include "json_pairs.h"
#include "marlet/marlet.h"
#include "options.h"
#include "stop_signal.h"

int main(int argc, char **argv) {
    using namespace qxbus;
    try {
        const Options options = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
        installStopHandlers();
        switch (options.command) {
        case Command::help:
            std::cout << usageText();
            return kExitOk;
        case Command::list:
            return runList(options);
        case Command::echo:
            return runEcho(options);
        case Command::stats:
            return runStats(options);
        case Command::publish:
            return runPublish(options);
        }
    } catch (const UsageError &e) {
        std::cerr << "qxbus: " << e.what() << "\nTry 'qxbus --help'.\n";
        return kExitUsage;
    } catch (const JsonInputError &e) {
        std::cerr << "qxbus: bad record: " << e.what() << '\n';
        return kExitUsage;
    } catch (const std::exception &e) {
        std::cerr << "qxbus: " << e.what() << '\n';
        return kExitFailure;
    }
    return kExitFailure;
}
