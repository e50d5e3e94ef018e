// kelctl catalog: lists what the daemon translates.
#include "catalog.h"
#include "commandLine.h"
#include "console.h"
#include "failure.h"

namespace kelctl {

int runCatalog(const Words& words) {
  bool json = false;
  bool markdown = false;
  std::vector<std::string> globs;
  CommandLine line("catalog", "Lists every observation that keld translates, its arguments, its events and texts.");
  line.addFlag("--json", json, "print one JSON array");
  line.addFlag("--markdown", markdown, "print Markdown tables, one per correlator");
  line.exclude("--markdown", "--json");
  line.addTexts("--id", "GLOB", globs, "list only observations that match GLOB; may be repeated");
  if (!line.parse(words)) return kDone;
  const std::vector<CatalogEntry> entries = catalog(globs);
  Output out;
  if (json) {
    out.write(catalogJson(entries).dump(2) + "\n");
  } else {
    out.write(markdown ? catalogMarkdown(entries) : catalogText(entries));
  }
  out.flush();
  return kDone;
}

}  // namespace kelctl
