#include "CliParse.h"

#include "Excerpt.h"

namespace aovsimtool {

ParseOutcome parseCommandLine(CLI::App& app, int argc, const char* const* argv,
                              std::string* message) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        *message = app.help();
        return ParseOutcome::kHelp;
    } catch (const CLI::ParseError& e) {
        *message = oneLine(e.what());
        return ParseOutcome::kError;
    }
    return ParseOutcome::kRun;
}

}  // namespace aovsimtool
