// Module objects as JSON, driven by the classes' member descriptions.
//
// Keys, data types and flags come from each class's DescribeIO (through the class record's
// components), never from a list written here: a member added to a class is saved and read back
// without touching this file. What is written here is one handler per data type.
//
// An object is {"class": <class id>, "members": {<key>: <value>, ...}} plus "children": [...] for
// hierarchy objects (the framework keeps those links, not a member). A null reference is null.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "telvo/objectbase.h"

namespace kelvara
{

// The object and everything its members reach, as JSON. False (with the reason) when a member
// has a data type no handler knows.
bool ObjectToJson(const telvo::ObjectInterface& object, nlohmann::json& out, std::string& error);

// Creates an object from JSON made by ObjectToJson. Errors name the JSON path of the offending
// value ("/members/SkeletonRoot/children/3/members/_objectID: expected a Uuid text, found 12").
bool ObjectFromJson(const nlohmann::json& in, telvo::ObjectRef& out, std::string& error);

} // namespace kelvara
