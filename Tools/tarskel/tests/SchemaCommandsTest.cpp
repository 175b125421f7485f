#include <gtest/gtest.h>

#include "ToolRunner.hpp"

namespace tarskel::tool::testing {
namespace {

using SchemaCommands = ToolFiles;

// One finding per line and exit 1, or exit 2 with a reason and nothing on
// standard output when the schema or the value can't be used.
TEST_F(SchemaCommands, FindingsAreLinesOrJSONAndBadInputIsExitTwo) {
  expectRuns(R"(
    schema validate $SCHEMA - --at args | 1 |  | args.a: [required] campo requerido ausente\nargs.n: [minimum] 0.0 < mínimo 1.0\n | {"n":0}
    schema validate $SCHEMA - --at '' | 1 |  | .a: [required] campo requerido ausente\n | {"n":1}
    schema validate $SCHEMA - | 0 |  | '' | {"a":null,"n":3}
    schema validate $SCHEMA - --json | 1 |  | {"findings":[{"message":"0.0 < mínimo 1.0","path":"$.n","rule":"minimum"}],"ok":false}\n | {"a":1,"n":0}
    schema doc-check - --at cfg | 1 |  | cfg.x: [doc.x-risk] todo campo de configuración exige x-risk (safe|disruptive|dangerous)\n | {"properties":{"x":{"description":"x"}}}
    schema validate - $SCHEMA | 2 | tarskel: standard input: dataCorrupted en type: valor desconocido: "text" | '' | {"type":"text"}
    schema validate - - | 2 | tarskel: only one of SCHEMA and VALUE can be standard input | '' | {}
  )",
             {{"$SCHEMA",
               write("schema.json",
                     R"({"required":["a"],"properties":{"n":{"type":"integer","minimum":1}}})")}});
}

}  // namespace
}  // namespace tarskel::tool::testing
