// tarskel json canonical|patch|diff

#include <memory>
#include <string>

#include "ToolCommand.hpp"
#include "tarskel/protocol/json/LeanCanonical.hpp"
#include "tarskel/protocol/json/MergePatch.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::tool {
namespace {

JSONValue readJSON(const std::string& path) { return readJSONInput<JSONValue>(path); }

int writeCanonical(const JSONValue& value) {
  writeOutput(TarskelJSON::canonicalEncoder().encode(value));
  return kExitSuccess;
}

// A large document is written without its whole tree (leanCanonical);
// whatever that way can't take is decoded whole, for the exact error.
int writeLeanCanonical(const std::string& path) {
  const std::string bytes = readInput(path);
  if (const auto pieces = leanCanonical(bytes)) {
    for (const std::string& piece : *pieces) writeOutput(piece);
    return kExitSuccess;
  }
  return writeCanonical(decodeJSONInput<JSONValue>(bytes, inputName(path)));
}

}  // namespace

void installJsonCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* json =
      app.add_subcommand("json", "Canonical bytes and merge patches of JSON documents");
  json->require_subcommand(1);

  auto file = std::make_shared<std::string>();
  CLI::App* canonical = json->add_subcommand(
      "canonical", "Write the canonical bytes of the JSON value in FILE (no newline added)");
  canonical->add_option("FILE", *file, "JSON file, or - for standard input")->required();
  canonical->callback([&ctx, file] { ctx.action = [file] { return writeLeanCanonical(*file); }; });

  auto patchFile = std::make_shared<std::string>();
  auto targetFile = std::make_shared<std::string>();
  CLI::App* patch = json->add_subcommand(
      "patch", "Apply the merge patch in PATCH to TARGET; write the result's canonical bytes");
  patch->add_option("PATCH", *patchFile, "merge patch file, or -")->required();
  patch->add_option("TARGET", *targetFile, "document file, or -")->required();
  patch->callback([&ctx, patchFile, targetFile] {
    ctx.action = [patchFile, targetFile] {
      const JSONValue p = readJSON(*patchFile);
      const JSONValue t = readJSON(*targetFile);
      return writeCanonical(MergePatch::apply(p, t));
    };
  });

  auto fromFile = std::make_shared<std::string>();
  auto toFile = std::make_shared<std::string>();
  CLI::App* diff = json->add_subcommand(
      "diff", "Write the canonical bytes of the merge patch that leads from FROM to TO");
  diff->add_option("FROM", *fromFile, "original document, or -")->required();
  diff->add_option("TO", *toFile, "changed document, or -")->required();
  diff->callback([&ctx, fromFile, toFile] {
    ctx.action = [fromFile, toFile] {
      const JSONValue from = readJSON(*fromFile);
      const JSONValue to = readJSON(*toFile);
      return writeCanonical(MergePatch::diff(from, to));
    };
  });
}

}  // namespace tarskel::tool
