#include "commands/import.h"

#include <cstdlib>
#include <new>
#include <stdexcept>

#include "import/launch_file_text.h"
#include "import/process_compose.h"
#include "import/supervisord.h"
#include "import/systemd.h"
#include "output/output.h"
#include "system/stop_signals.h"

namespace vorn::launch {
namespace {

struct ImportFormat {
  const char* name;
  Imported (*import)(const std::vector<SourceText>& files);
};

constexpr ImportFormat kImportFormats[] = {
    {"supervisord", importSupervisord},
    {"systemd", importSystemd},
    {"process-compose", importProcessCompose},
};

void checkEncoding(const SourceText& file) {
  for (int line = 1; line <= file.lineCount(); ++line) {
    if (isUtf8(file.line(line))) continue;
    throw ImportError(file, line, "the line is not UTF-8");
  }
}

ExitStatus printImported(const ImportOptions& options) {
  std::vector<SourceText> files;
  std::string heading = "Imported from";
  for (const std::string& name : options.files) {
    std::string error;
    auto file = readSourceText(name, error);
    if (!file) throw std::runtime_error(error);
    checkEncoding(*file);
    heading += " " + file->name();
    files.push_back(std::move(*file));
  }
  for (const ImportFormat& format : kImportFormats) {
    if (format.name != options.format) continue;
    Imported imported = format.import(files);
    const char* const path = std::getenv("PATH");
    rejectInvalidOptions(imported);
    findPrograms(imported, path == nullptr ? "/usr/bin:/bin" : path);
    standardOutput() << launchFileText(imported, heading);
  }
  return kDone;
}

}  // namespace

std::vector<std::string> importFormats() {
  std::vector<std::string> names;
  for (const ImportFormat& format : kImportFormats)
    names.emplace_back(format.name);
  return names;
}

ExitStatus importFiles(const Context& context, const ImportOptions& options) {
  dieByStopSignals(context.settings().cancelFd);
  try {
    return printImported(options);
  } catch (const std::bad_alloc&) {
    context.printError("not enough memory to import the files");
  } catch (const std::runtime_error& failure) {
    context.printError(failure.what());
  }
  return kUsage;
}

}  // namespace vorn::launch
