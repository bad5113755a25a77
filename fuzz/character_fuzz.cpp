// Saved characters: any JSON document is turned into module objects or refused with a message
// naming where; whatever is read saves, reads back and saves again to the same JSON (maps
// compared as sets of pairs), and leaves no framework allocation behind once released.
//
// The module is loaded once: from $KELVARA_MODULE, else the one built beside this target.
// Classes the module does not register are refused like any other unknown class id.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "io/json/object_json.h"
#include "telvo/internedid.h"
#include "telvo/loader.h"
#include "telvo/system.h"

namespace
{

using nlohmann::json;

void Require(bool ok, const char* what, const std::string& detail = std::string())
{
  if (ok)
    return;
  std::fprintf(stderr, "broken: %s\n%s\n", what, detail.c_str());
  std::abort();
}

std::string Shown(const json& value)
{
  std::string text = value.dump();
  return text.size() > 2000 ? text.substr(0, 2000) + "..." : text;
}

// Maps are saved as [[key, value], ...] in the map's iteration order, which depends on how the
// map was filled; compare them as sets of pairs.
json WithMapsSorted(const json& value)
{
  if (value.is_object())
  {
    json out = json::object();
    for (const auto& [key, member] : value.items())
      out[key] = WithMapsSorted(member);
    return out;
  }
  if (!value.is_array())
    return value;
  json out = json::array();
  bool pairs = !value.empty();
  for (const json& element : value)
  {
    pairs = pairs && element.is_array() && element.size() == 2;
    out.push_back(WithMapsSorted(element));
  }
  if (pairs)
    std::sort(out.begin(), out.end());
  return out;
}

void Check(const json& document)
{
  telvo::ObjectRef object;
  std::string error;
  if (!kelvara::ObjectFromJson(document, object, error))
  {
    Require(!object, "a refused document still gave an object");
    Require(error.size() > 3 && error[0] == '/' && error.find(": ") != std::string::npos,
            "refusal without a JSON path", error);
    return;
  }
  Require(static_cast<bool>(object), "accepted without an object");

  json saved;
  Require(kelvara::ObjectToJson(*object, saved, error), "an object read cannot be saved", error);
  telvo::ObjectRef again;
  Require(kelvara::ObjectFromJson(saved, again, error), "a saved object does not read back",
          error + "\n" + Shown(saved));
  json resaved;
  Require(kelvara::ObjectToJson(*again, resaved, error), "an object read back cannot be saved", error);
  Require(WithMapsSorted(resaved) == WithMapsSorted(saved), "saving is not stable", Shown(saved) + "\n---\n" + Shown(resaved));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  const char* env = std::getenv("KELVARA_MODULE");
  const std::string path = env != nullptr && *env != '\0' ? env : KELVARA_MODULE_PATH;
  std::string why;
  // Kept loaded to the end of the process: the registries must outlive every input.
  static std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(path, why);
  if (!module)
  {
    std::fprintf(stderr, "cannot load the module %s: %s\n", path.c_str(), why.c_str());
    std::exit(1);
  }
  // The interning table allocates its buckets on first use and keeps them: make that happen
  // here, so that the live count around each input only moves for what the input made.
  Require(telvo::InternedId::Intern("warm-up").IsOk(), "cannot intern an identifier");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const json document = json::parse(data, data + size, nullptr, false);
  if (document.is_discarded())
    return 0;
  const telvo::Int live = telvo::Allocator::GetLiveCount();
  Check(document);
  Require(telvo::Allocator::GetLiveCount() == live, "framework allocations left after the objects were released",
          std::to_string(telvo::Allocator::GetLiveCount() - live));
  return 0;
}
