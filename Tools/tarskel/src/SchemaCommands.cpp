// tarskel schema validate|doc-check

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/schema/SchemaNode.hpp"

namespace tarskel::tool {
namespace {

// One finding per line, or with --json one object; exit 1 when there is any.
int report(const std::vector<SchemaViolation>& violations, bool json) {
  std::string text;
  if (json) {
    JSONValue::Array findings;
    for (const SchemaViolation& v : violations) {
      findings.emplace_back(JSONObject{{"path", JSONValue(v.path)},
                                       {"rule", JSONValue(v.rule)},
                                       {"message", JSONValue(v.message)}});
    }
    text = jsonLine(JSONObject{{"ok", JSONValue(violations.empty())},
                               {"findings", JSONValue(std::move(findings))}});
  } else {
    for (const SchemaViolation& v : violations) text.append(v.description()).append("\n");
  }
  writeOutput(text);
  return violations.empty() ? kExitSuccess : kExitFailure;
}

struct ValidateOptions {
  std::string schemaFile;
  std::string valueFile;
  std::string path = "$";
  bool json = false;
};

int runValidate(const ValidateOptions& options) {
  if (options.schemaFile == "-" && options.valueFile == "-") {
    throw ToolFailure(kExitUsage, "only one of SCHEMA and VALUE can be standard input");
  }
  const SchemaNode schema = readJSONInput<SchemaNode>(options.schemaFile);
  const JSONValue value = readJSONInput<JSONValue>(options.valueFile);
  return report(schema.validate(value, options.path), options.json);
}

struct DocCheckOptions {
  std::string schemaFile;
  std::string path = "configSchema";
  bool json = false;
};

int runDocCheck(const DocCheckOptions& options) {
  const SchemaNode schema = readJSONInput<SchemaNode>(options.schemaFile);
  return report(schema.configDocumentationViolations(options.path), options.json);
}

}  // namespace

void installSchemaCommands(CLI::App& app, ToolContext& ctx) {
  CLI::App* schema =
      app.add_subcommand("schema", "Check values against schemas, and schemas for documentation");
  schema->require_subcommand(1);

  auto validate = std::make_shared<ValidateOptions>();
  CLI::App* validateCommand =
      schema->add_subcommand("validate",
                             "Check the JSON value in VALUE against the schema in SCHEMA; one "
                             "finding per line, exit 1 if any");
  validateCommand
      ->add_option("SCHEMA", validate->schemaFile, "schema file, or - for standard input")
      ->required();
  validateCommand
      ->add_option("VALUE", validate->valueFile, "JSON value file, or - for standard input")
      ->required();
  validateCommand->add_option("--at", validate->path, "path that names the value in findings")
      ->capture_default_str();
  addJSONFlag(validateCommand, validate->json);
  validateCommand->callback(
      [&ctx, validate] { ctx.action = [validate] { return runValidate(*validate); }; });

  auto docCheck = std::make_shared<DocCheckOptions>();
  CLI::App* docCheckCommand =
      schema->add_subcommand("doc-check",
                             "Report configuration fields of SCHEMA without description or x-risk; "
                             "one per line, exit 1 if any");
  docCheckCommand
      ->add_option("SCHEMA", docCheck->schemaFile, "schema file, or - for standard input")
      ->required();
  docCheckCommand
      ->add_option("--at", docCheck->path, "path that names the schema's root in findings")
      ->capture_default_str();
  addJSONFlag(docCheckCommand, docCheck->json);
  docCheckCommand->callback(
      [&ctx, docCheck] { ctx.action = [docCheck] { return runDocCheck(*docCheck); }; });
}

}  // namespace tarskel::tool
