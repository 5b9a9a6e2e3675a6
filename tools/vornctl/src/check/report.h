#pragma once

#include <vector>

#include "check/diagnostic.h"
#include "launchfile/source_text.h"
#include "output/output.h"

namespace vorn::launch {

/// One file and what is wrong with it.
struct CheckedFile {
  SourceText document;
  bool isLoaded = false;  // the launcher would read it to its end
  Diagnostics diagnostics;
};

/// A line a finding as compilers write it, "FILE:LINE:COLUMN: error: TEXT
/// [NAME]", and one for each second place. With `has_source` the source line
/// and a caret follow each.
void printAsText(Output& out, const CheckedFile& file, bool has_source,
                 bool has_colours);

/// One JSON document; docs/checks.md tells its members.
void printAsJson(Output& out, const std::vector<CheckedFile>& files);

/// One document in the Static Analysis Results Interchange Format, 2.1.0.
void printAsSarif(Output& out, const std::vector<CheckedFile>& files);

/// Workflow commands that mark the places in a merge request.
void printAsGithub(Output& out, const std::vector<CheckedFile>& files);

}  // namespace vorn::launch
