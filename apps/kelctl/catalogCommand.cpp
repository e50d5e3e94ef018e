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
  CLI::App& app = line.app();
  auto* asJson = app.add_flag("--json", json, "print one JSON array");
  app.add_flag("--markdown", markdown, "print Markdown tables, one per correlator")->excludes(asJson);
  app.add_option("--id", globs, "list only observations that match GLOB; may be repeated")
      ->type_name("GLOB")
      ->expected(1)
      ->take_all();
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
