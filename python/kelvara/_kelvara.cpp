// kelvara._kelvara: the host's own road for Python. Characters are read and built, clips solved
// and files written by the same code the kelvara command runs (Road, RunClip, the readers and
// writers); this file only turns numpy arrays into clips and back, and errors into exceptions.
// The package's __init__.py documents the API that users see.
#include <dlfcn.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "cli/command.h"
#include "io/animation_file.h"
#include "io/json/saved_character.h"
#include "output/report.h"
#include "road/batch.h"
#include "road/clip_run.h"
#include "road/setup.h"
#include "telvo/loader.h"

namespace py = pybind11;

namespace kelvara
{
namespace
{

// The exception family, made when the extension is imported.
PyObject* g_error = nullptr;      // kelvara.Error: the work failed (memory, the disk, the module)
PyObject* g_inputError = nullptr; // kelvara.InputError: a file, an option or a map is wrong
PyObject* g_arrayError = nullptr; // kelvara.ArrayError: an array handed in is wrong

// Raises type with message; when message starts with "FILE:" or "FILE:LINE:" for a file the
// caller knows, or names it quoted, the exception's file and line say so (else they are None).
[[noreturn]] void Raise(PyObject* type, const std::string& message, const std::vector<std::string>& files = {})
{
  py::object file = py::none();
  py::object line = py::none();
  for (const std::string& f : files)
  {
    if (f.empty())
      continue;
    if (message.compare(0, f.size() + 1, f + ":") != 0)
    {
      // "cannot read 'FILE': why"
      if (message.find("'" + f + "'") == std::string::npos)
        continue;
      file = py::str(f);
      break;
    }
    file = py::str(f);
    std::size_t at = f.size() + 1;
    std::size_t end = at;
    while (end < message.size() && message[end] >= '0' && message[end] <= '9')
      ++end;
    if (end > at && end < message.size() && message[end] == ':')
      line = py::int_(std::stol(message.substr(at, end - at)));
    break;
  }
  py::object instance = py::reinterpret_borrow<py::object>(type)(message);
  instance.attr("file") = file;
  instance.attr("line") = line;
  PyErr_SetObject(type, instance.ptr());
  throw py::error_already_set();
}

[[noreturn]] void Raise(const Problem& problem, const std::vector<std::string>& files = {})
{
  Raise(problem.badInput ? g_inputError : g_error, problem.message, files);
}

// Where the module is: $KELVARA_MODULE, else beside this extension (an installed package), else
// where the build put it.
std::string ModulePath()
{
  if (const char* path = std::getenv("KELVARA_MODULE"); path != nullptr && *path != '\0')
    return path;
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&ModulePath), &info) != 0 && info.dli_fname != nullptr)
  {
    std::string self = info.dli_fname;
    std::string beside = self.substr(0, self.rfind('/') + 1) + "libkelvara.so";
    struct stat st;
    if (stat(beside.c_str(), &st) == 0)
      return beside;
  }
  return KELVARA_BUILT_MODULE;
}

// Loaded once on import and kept for the life of the process: Python may hold characters and
// roads (module objects) until the very end.
telvo::LoadedModule* g_module = nullptr;

// Roads by their options, made on first use and kept for later calls: retargeting many clips
// onto one target reads and builds the target once. A handful of option sets at most; the oldest
// goes first (a caller still using it keeps it alive).
class RoadCache
{
public:
  // The road for options, set up by make(road, problem) the first time; null with problem set
  // when that fails (nothing is kept then).
  template <typename Make>
  std::shared_ptr<Road> Get(const RoadOptions& options, Problem& problem, Make make)
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& [o, road] : _roads)
      if (o == options)
        return road;
    auto road = std::make_shared<Road>(options);
    if (!make(*road, problem))
      return nullptr;
    if (_roads.size() >= kKept)
      _roads.erase(_roads.begin());
    _roads.emplace_back(options, road);
    return road;
  }

private:
  static constexpr std::size_t kKept = 8;
  std::mutex _mutex;
  std::vector<std::pair<RoadOptions, std::shared_ptr<Road>>> _roads;
};

// ---- characters

// A character as the command reads a target: the file read with the skeleton root, the module
// character built and filled with the preset. Immutable once made, so threads may share it.
struct CharacterData
{
  std::string path;
  std::string skeletonRoot;
  std::string preset; // as asked for; "" the best filling one
  bool saved = false; // a saved character (.json), used as saved
  std::unique_ptr<Road> road; // its target side holds the file and the built character

  RoadCache roads; // roads onto this character

  const AnimationFile& File() const { return road->Target(); }
  const Character& Built() const { return road->TargetCharacter(); }
};

using CharacterPtr = std::shared_ptr<CharacterData>;

CharacterPtr LoadCharacter(const std::string& path, const std::string& preset, const std::string& skeletonRoot)
{
  auto data = std::make_shared<CharacterData>();
  data->path = path;
  data->skeletonRoot = skeletonRoot;
  data->preset = preset;
  data->saved = IsSavedCharacterPath(path);
  RoadOptions options;
  options.targetPath = path;
  options.targetSkeletonRoot = skeletonRoot;
  options.targetPreset = preset;
  data->road = std::make_unique<Road>(options);
  Problem problem;
  bool ok = false;
  {
    py::gil_scoped_release release;
    ok = data->road->Setup(problem);
  }
  if (!ok)
    Raise(problem, {path});
  return data;
}

// The road onto target for options (targetPath and the target's settings filled in here), made
// once per distinct set of options.
std::shared_ptr<Road> RoadOnto(CharacterData& target, RoadOptions options, Problem& problem)
{
  options.targetPath = target.path;
  options.targetSkeletonRoot = target.skeletonRoot;
  options.targetPreset = target.preset;
  // A saved target is read again so that it is used as saved; any other needs no second read.
  return target.roads.Get(options, problem, [&](Road& road, Problem& p) {
    return target.saved ? road.Setup(p) : road.Setup(target.File(), p);
  });
}

py::array_t<double> Matrix4(const telvo::Matrix& m)
{
  py::array_t<double> a({4, 4});
  auto r = a.mutable_unchecked<2>();
  const telvo::Vector* columns[4] = {&m.v1, &m.v2, &m.v3, &m.off};
  for (int c = 0; c < 4; ++c)
  {
    r(0, c) = columns[c]->x;
    r(1, c) = columns[c]->y;
    r(2, c) = columns[c]->z;
    r(3, c) = c == 3 ? 1.0 : 0.0;
  }
  return a;
}

// ---- clips

struct ClipData
{
  Clip clip;
  std::vector<bool> driven; // per joint, whether a source joint drives it; empty: all
};

using ClipPtr = std::shared_ptr<ClipData>;

// A read-only array over memory that owner keeps alive: no copy.
template <typename T>
py::array View(const T* data, std::vector<py::ssize_t> shape, py::handle owner)
{
  py::array a(py::dtype::of<double>(), shape, {}, reinterpret_cast<const double*>(data), owner);
  a.attr("setflags")(py::arg("write") = false);
  return a;
}

using DoubleArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

[[noreturn]] void ArrayError(const std::string& message)
{
  Raise(g_arrayError, message);
}

std::string Shape(const py::array& a)
{
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i)
    s += (i ? ", " : "") + std::to_string(a.shape(i));
  return s + (a.ndim() == 1 ? ",)" : ")");
}

// Checks every number of values (count of them) is finite; the first that is not is named.
void CheckFinite(const double* values, std::size_t count, std::size_t perItem, const char* what)
{
  for (std::size_t i = 0; i < count; ++i)
    if (!std::isfinite(values[i]))
      ArrayError(std::string(what) + ": expected finite numbers, found " + std::to_string(values[i]) + " at index " +
                 std::to_string(i / perItem));
}

ClipPtr ClipFromArrays(const DoubleArray& rotations, const DoubleArray& rootTranslation, double frameTime,
                       const std::string& name, const std::optional<DoubleArray>& translations)
{
  if (rotations.ndim() != 3 || rotations.shape(2) != 4)
    ArrayError("rotations: expected an array of shape (frames, joints, 4), found shape " + Shape(rotations));
  const py::ssize_t frames = rotations.shape(0);
  const py::ssize_t joints = rotations.shape(1);
  if (frames < 1 || frames > kMaxFrames)
    ArrayError("rotations: expected 1 to " + std::to_string(kMaxFrames) + " frames, found " + std::to_string(frames));
  if (joints < 1 || joints > kMaxJoints)
    ArrayError("rotations: expected 1 to " + std::to_string(kMaxJoints) + " joints, found " + std::to_string(joints));
  if (rootTranslation.ndim() != 2 || rootTranslation.shape(0) != frames || rootTranslation.shape(1) != 3)
    ArrayError("root_translation: expected an array of shape (" + std::to_string(frames) + ", 3), found shape " +
               Shape(rootTranslation));
  if (!std::isfinite(frameTime) || frameTime <= 0.0)
    ArrayError("frame_time: expected a positive number of seconds, found " + std::to_string(frameTime));
  if (translations &&
      (translations->ndim() != 3 || translations->shape(0) != frames || translations->shape(1) != joints ||
       translations->shape(2) != 3))
    ArrayError("translations: expected an array of shape (" + std::to_string(frames) + ", " + std::to_string(joints) +
               ", 3), found shape " + Shape(*translations));

  const std::size_t n = static_cast<std::size_t>(frames) * static_cast<std::size_t>(joints);
  CheckFinite(rotations.data(), n * 4, 4, "rotations");
  CheckFinite(rootTranslation.data(), static_cast<std::size_t>(frames) * 3, 3, "root_translation");
  if (translations)
    CheckFinite(translations->data(), n * 3, 3, "translations");
  auto data = std::make_shared<ClipData>();
  Clip& clip = data->clip;
  clip.name = name;
  clip.frameCount = static_cast<int>(frames);
  clip.jointCount = static_cast<int>(joints);
  clip.frameTime = frameTime;
  clip.rotations.resize(n);
  static_assert(sizeof(Quaternion) == 4 * sizeof(double) && sizeof(telvo::Vector) == 3 * sizeof(double));
  std::memcpy(static_cast<void*>(clip.rotations.data()), rotations.data(), n * sizeof(Quaternion));
  for (std::size_t i = 0; i < n; ++i)
  {
    const double norm = Norm(clip.rotations[i]);
    if (std::abs(norm - 1.0) > 1e-3)
      ArrayError("rotations[" + std::to_string(i / static_cast<std::size_t>(joints)) + ", " +
                 std::to_string(i % static_cast<std::size_t>(joints)) +
                 "]: expected a unit quaternion (w, x, y, z) within 1e-3, found length " + std::to_string(norm));
  }
  clip.rootTranslation.resize(static_cast<std::size_t>(frames));
  std::memcpy(static_cast<void*>(clip.rootTranslation.data()), rootTranslation.data(),
              clip.rootTranslation.size() * sizeof(telvo::Vector));
  if (translations)
  {
    clip.translations.resize(n);
    std::memcpy(static_cast<void*>(clip.translations.data()), translations->data(), n * sizeof(telvo::Vector));
  }
  return data;
}

ClipPtr LoadClip(const std::string& path, const std::string& animation, const std::string& skeletonRoot)
{
  ReadRequest request;
  request.animation = animation;
  request.skeletonRoot = skeletonRoot;
  AnimationFile file;
  std::string error;
  bool ok = false;
  {
    py::gil_scoped_release release;
    ok = ReadAnimationFile(path, request, file, error);
  }
  if (!ok)
    Raise(g_inputError, error, {path});
  if (!file.hasClip)
    Raise(g_inputError, path + ": expected an animation, found none", {path});
  auto data = std::make_shared<ClipData>();
  data->clip = std::move(file.clip);
  return data;
}

void SaveClip(const ClipData& data, const std::string& path, const CharacterData& character, bool replaceAnimations,
              const std::string& animationName)
{
  const Skeleton& skeleton = character.File().skeleton;
  std::string error;
  if (!ValidateClip(data.clip, skeleton, error))
    Raise(g_arrayError, error);
  if (!CheckWritablePath(path, error))
    Raise(g_inputError, error);
  WriteRequest request;
  request.animationName = animationName;
  request.replaceAnimations = replaceAnimations;
  request.driven = data.driven;
  bool ok = false;
  {
    py::gil_scoped_release release;
    ok = WriteAnimationFile(path, character.File(), data.clip, request, error);
  }
  if (!ok)
    Raise(g_error, error, {path});
}

// ---- retargeting

py::object ReportObject(const ClipReport& report, double seconds)
{
  const std::string text = ReportJson({report}, seconds)["clips"][0].dump();
  return py::module_::import("json").attr("loads")(text);
}

// One clip in memory onto target: the road's source side is the source character's skeleton.
py::tuple Retarget(const ClipData& clip, const CharacterData& source, CharacterData& target, RoadOptions options,
                   bool measure, int threads)
{
  options.sourcePreset = source.preset;
  options.sourceCharacterPath = source.saved ? source.path : "";
  ClipRun run;
  run.source.skeleton = source.File().skeleton;
  run.source.format = source.File().format;
  std::string error;
  if (!ValidateClip(clip.clip, run.source.skeleton, error))
    Raise(g_arrayError, error);
  run.source.clip = clip.clip;
  run.source.hasClip = true;
  run.describe = true;
  run.measure = measure;
  run.threads = threads;
  bool ok = false;
  {
    py::gil_scoped_release release;
    std::shared_ptr<Road> road = RoadOnto(target, options, run.problem);
    ok = road && RunClip(*road, run);
  }
  if (!ok)
    Raise(run.problem, {source.path, options.mapPath, target.path});
  auto out = std::make_shared<ClipData>();
  out->clip = std::move(run.output);
  out->driven = DrivenJoints(run.side->prepared);
  return py::make_tuple(ClipPtr(out), ReportObject(run.clip, run.solveSeconds));
}

// The roads of retarget_file, for the life of the process: a worker of a batch reads and builds
// the target once for all its clips.
RoadCache g_fileRoads;

std::shared_ptr<Road> FileRoad(const RoadOptions& options, Problem& problem)
{
  return g_fileRoads.Get(options, problem, [](Road& road, Problem& p) { return road.Setup(p); });
}

// One file onto options.targetPath, written to output exactly as `kelvara retarget SOURCE
// --target ... -o OUTPUT` writes it.
py::object RetargetFile(const std::string& source, const std::string& output, const RoadOptions& options,
                        bool replaceAnimations, bool measure, int threads)
{
  std::string error;
  if (!CheckWritablePath(output, error))
    Raise(g_inputError, error);
  ClipRun run;
  run.sourcePath = source;
  run.outputPath = output;
  run.describe = run.measure = measure;
  run.replaceAnimations = replaceAnimations;
  run.threads = threads;
  bool ok = false;
  {
    py::gil_scoped_release release;
    std::shared_ptr<Road> road = FileRoad(options, run.problem);
    ok = road && RunClip(*road, run);
  }
  if (!ok)
    Raise(run.problem, {source, output, options.targetPath, options.mapPath, options.sourceCharacterPath});
  return ReportObject(run.clip, run.readSeconds + run.solveSeconds + run.writeSeconds);
}

// --root-scale: "auto" or a positive number, also as text (as a command line gives it).
double ParseRootScale(const py::object& value)
{
  double scale = 0.0;
  if (py::isinstance<py::str>(value))
  {
    const std::string text = value.cast<std::string>();
    if (text == "auto")
      return 0.0;
    char* end = nullptr;
    scale = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size())
      scale = 0.0;
  }
  else if (!value.is_none() && !py::isinstance<py::bool_>(value) && PyNumber_Check(value.ptr()))
    scale = py::float_(value).cast<double>();
  if (std::isfinite(scale) && scale > 0.0)
    return scale;
  Raise(g_inputError,
        "expected \"auto\" or a positive number for root_scale, found " + py::repr(value).cast<std::string>());
}

py::object MakeException(py::module_& m, const char* name, py::tuple bases, const char* doc)
{
  py::dict namespace_;
  namespace_["__doc__"] = doc;
  namespace_["__module__"] = "kelvara";
  py::object typeType = py::reinterpret_borrow<py::object>(reinterpret_cast<PyObject*>(&PyType_Type));
  py::object type = typeType(name, bases, namespace_);
  m.attr(name) = type;
  return type;
}

} // namespace
} // namespace kelvara

PYBIND11_MODULE(_kelvara, m)
{
  using namespace kelvara;
  m.doc() = "The kelvara road for numpy: see the kelvara package.";

  py::object error = MakeException(m, "Error", py::make_tuple(py::reinterpret_borrow<py::object>(PyExc_Exception)),
                                   "Every error of kelvara. file and line say where in an input file, when known.");
  py::object inputError =
    MakeException(m, "InputError", py::make_tuple(error, py::reinterpret_borrow<py::object>(PyExc_ValueError)),
                  "An input is wrong: a file (unreadable, malformed, without a skeleton or an animation), an option "
                  "or a joint map. Nothing was written.");
  py::object arrayError = MakeException(m, "ArrayError", py::make_tuple(inputError),
                                        "An array handed in is wrong: its shape, a number that is not finite, a "
                                        "rotation that is not a unit quaternion. Nothing was done.");
  g_error = error.release().ptr();
  g_inputError = inputError.release().ptr();
  g_arrayError = arrayError.release().ptr();

  const std::string modulePath = ModulePath();
  std::string why;
  std::unique_ptr<telvo::LoadedModule> module = telvo::LoadedModule::Load(modulePath, why);
  if (!module)
    throw py::import_error("kelvara: cannot load the module " + modulePath + ": " + why);
  g_module = module.release();
  m.attr("module_path") = modulePath;

  // Every option of the road, by the command's names in snake case; defaults are RoadOptions'
  // own, the ones the command starts from. Each text starts with the command's flag: for a
  // boolean, the flag that turns it from its default (the shell entry point takes its flags from
  // here).
  py::class_<RoadOptions>(m, "RoadOptions", "Options of a retarget, by the command's names; defaults are the "
                                            "command's.")
    .def(py::init<>())
    .def(py::self == py::self)
    .def_readwrite("target", &RoadOptions::targetPath, "--target: the file that gives the character")
    .def_readwrite("skeleton_root", &RoadOptions::targetSkeletonRoot,
                   "--skeleton-root: node whose subtree is the target's skeleton (\"\": the skin's joints)")
    .def_readwrite("source_character", &RoadOptions::sourceCharacterPath,
                   "--source-character: saved character standing for the sources' skeleton")
    .def_readwrite("source_skeleton_root", &RoadOptions::sourceSkeletonRoot,
                   "--source-skeleton-root: node whose subtree is the source's skeleton")
    .def_readwrite("animation", &RoadOptions::animation,
                   "--animation: animation of a source file, by name or index (\"\": the first)")
    .def_readwrite("map", &RoadOptions::mapPath, "--map: JSON file {\"target joint\": \"source joint\"}")
    .def_readwrite("map_text", &RoadOptions::mapText, "map_text: the same JSON object as text")
    .def_readwrite("source_preset", &RoadOptions::sourcePreset,
                   "--source-preset: keyword preset for the source (\"\": the one that fills the most body parts)")
    .def_readwrite("target_preset", &RoadOptions::targetPreset,
                   "--target-preset: keyword preset for the target (\"\": the one that fills the most body parts)")
    .def_property(
      "root_scale",
      [](const RoadOptions& o) -> py::object {
        return o.rootScale > 0.0 ? py::object(py::float_(o.rootScale)) : py::object(py::str("auto"));
      },
      [](RoadOptions& o, const py::object& value) { o.rootScale = ParseRootScale(value); },
      "--root-scale: \"auto\" (the target's hip height over the source's) or a positive number")
    .def_readwrite("root_motion", &RoadOptions::rootMotion, "--no-root-motion: keep the root in place")
    .def_readwrite("match_rest", &RoadOptions::matchRest, (std::string("--keep-rest: ") + kMatchRestHelp).c_str())
    .def_readwrite("plant_feet", &RoadOptions::plantFeet,
                   (std::string("--no-plant-feet: ") + kPlantFeetHelp).c_str());

  py::class_<CharacterData, CharacterPtr>(m, "Character", "A character read and built as the command builds it.")
    .def_property_readonly("path", [](const CharacterData& c) { return c.path; },
                           "the file read")
    .def_property_readonly("skeleton_root", [](const CharacterData& c) { return c.skeletonRoot; },
                           "the node whose subtree is the skeleton (\"\" the skins' joints)")
    .def_property_readonly("requested_preset", [](const CharacterData& c) { return c.preset; },
                           "the preset asked for (\"\" the best filling one)")
    .def_property_readonly("format", [](const CharacterData& c) { return c.File().format; },
                           "\"BVH\", \"glTF\", \"FBX\", ... the file's format")
    .def_property_readonly("warnings", [](const CharacterData& c) { return c.File().warnings; },
                           "\"FILE:LINE: ...\" texts of the reader")
    .def_property_readonly("joint_count", [](const CharacterData& c) { return c.File().skeleton.Size(); },
                           "number of joints")
    .def_property_readonly("joint_names",
                           [](const CharacterData& c) {
                             std::vector<std::string> names;
                             for (const Joint& j : c.File().skeleton.joints)
                               names.push_back(j.name);
                             return names;
                           },
                           "joint names, parents before children")
    .def_property_readonly("parents",
                           [](const CharacterData& c) {
                             const std::vector<Joint>& joints = c.File().skeleton.joints;
                             py::array_t<int> a(static_cast<py::ssize_t>(joints.size()));
                             for (std::size_t i = 0; i < joints.size(); ++i)
                               a.mutable_at(i) = joints[i].parent;
                             return a;
                           },
                           "int32 parent index per joint, -1 for a root")
    .def_property_readonly("rest",
                           [](const CharacterData& c) {
                             const std::vector<Joint>& joints = c.File().skeleton.joints;
                             const auto count = static_cast<py::ssize_t>(joints.size());
                             py::array_t<double> a({count, py::ssize_t{4}, py::ssize_t{4}});
                             auto r = a.mutable_unchecked<3>();
                             for (std::size_t i = 0; i < joints.size(); ++i)
                             {
                               const Joint& joint = joints[i];
                               const auto m4 = Matrix4(LocalMatrix(joint.translation, joint.rotation, joint.scale));
                               auto v = m4.unchecked<2>();
                               for (py::ssize_t row = 0; row < 4; ++row)
                                 for (py::ssize_t col = 0; col < 4; ++col)
                                   r(static_cast<py::ssize_t>(i), row, col) = v(row, col);
                             }
                             return a;
                           },
                           "(J, 4, 4) local rest transforms T * R * S for column vectors, in the file's units")
    .def_property_readonly("scene_transform",
                           [](const CharacterData& c) { return Matrix4(c.File().skeleton.sceneTransform); },
                           "(4, 4) world matrix of the roots' parent (axis and unit conversion; Y up)")
    .def_property_readonly("metres_per_unit", [](const CharacterData& c) { return c.File().skeleton.metresPerUnit; },
                           "length of one unit in metres; 0 when the file does not say")
    .def_property_readonly("preset", [](const CharacterData& c) { return c.Built().preset; },
                           "the keyword preset that filled the body parts")
    .def_property_readonly("preset_reason",
                           [](const CharacterData& c) {
                             return DescribeCharacter(c.Built(), !c.preset.empty()).presetReason;
                           },
                           "why that preset was chosen")
    .def_property_readonly("notes", [](const CharacterData& c) { return c.Built().notes; },
                           "texts of the character builder (sides swapped, joints claimed twice)")
    .def_property_readonly("body_parts", [](const CharacterData& c) {
      py::dict parts;
      const Character& built = c.Built();
      for (int part = 0; part < kBodyPartCount; ++part)
        if (const int joint = built.partJoint[static_cast<std::size_t>(part)]; joint >= 0)
          parts[py::str(GetBodyPartInfo(part).name)] = c.File().skeleton.joints[static_cast<std::size_t>(joint)].name;
      return parts;
    },
                           "{body part: joint name} for every filled body part");

  py::class_<ClipData, ClipPtr>(m, "Clip", "Local rotations of every joint per frame and the root's translation.")
    .def(py::init(&ClipFromArrays), py::arg("rotations"), py::arg("root_translation"), py::arg("frame_time"),
         py::arg("name") = "clip", py::arg("translations") = std::nullopt)
    .def_property_readonly("name", [](const ClipData& c) { return c.clip.name; },
                           "the animation's name (glTF writes it), or the file's stem")
    .def_property_readonly("frame_time", [](const ClipData& c) { return c.clip.frameTime; },
                           "seconds from one frame to the next")
    .def_property_readonly("frame_count", [](const ClipData& c) { return c.clip.frameCount; },
                           "number of frames")
    .def_property_readonly("joint_count", [](const ClipData& c) { return c.clip.jointCount; },
                           "number of joints")
    .def_property_readonly("rotations",
                           [](py::object self) {
                             const Clip& c = self.cast<const ClipData&>().clip;
                             return View(c.rotations.data(), {c.frameCount, c.jointCount, 4}, self);
                           },
                           "(F, J, 4) local rotations as unit quaternions w, x, y, z; read-only, no copy")
    .def_property_readonly("root_translation",
                           [](py::object self) {
                             const Clip& c = self.cast<const ClipData&>().clip;
                             return View(c.rootTranslation.data(), {c.frameCount, 3}, self);
                           },
                           "(F, 3) local translation of joint 0; read-only, no copy")
    .def_property_readonly("translations",
                           [](py::object self) -> py::object {
                             const Clip& c = self.cast<const ClipData&>().clip;
                             if (c.translations.empty())
                               return py::none();
                             return View(c.translations.data(), {c.frameCount, c.jointCount, 3}, self);
                           },
                           "(F, J, 3) local translations of every joint, or None; read-only, no copy")
    .def("_save", &SaveClip, py::arg("path"), py::arg("character"), py::arg("replace_animations") = false,
         py::arg("animation_name") = "")
    .def_property_readonly("driven", [](const ClipData& c) -> py::object {
      if (c.driven.empty())
        return py::none();
      py::array_t<bool> a(static_cast<py::ssize_t>(c.driven.size()));
      for (std::size_t i = 0; i < c.driven.size(); ++i)
        a.mutable_at(i) = c.driven[i];
      return a;
    },
                           "per target joint, whether a source joint drives it (retargeted clips), else None");

  m.def("load_character", &LoadCharacter, py::arg("path"), py::arg("preset") = "", py::arg("skeleton_root") = "");
  m.def("load_clip", &LoadClip, py::arg("path"), py::arg("animation") = "", py::arg("skeleton_root") = "");
  m.def("retarget", &Retarget, py::arg("clip"), py::arg("source"), py::arg("target"), py::arg("options"),
        py::arg("measure") = false, py::arg("threads") = 0);
  m.def("retarget_file", &RetargetFile, py::arg("source"), py::arg("output"), py::arg("options"),
        py::arg("replace_animations") = false, py::arg("measure") = true, py::arg("threads") = 0);
  m.def("batch_output_path", [](const std::string& outDir, const std::string& source, const std::string& format,
                                const std::string& targetPath) {
    std::string extension;
    std::string error;
    if (!BatchExtension(format, targetPath, extension, error))
      Raise(g_inputError, error);
    return BatchOutputPath(outDir, source, extension);
  }, py::arg("out_dir"), py::arg("source"), py::arg("format"), py::arg("target"));
  m.def("presets", [] {
    std::vector<std::string> names;
    for (const Preset& p : GetPresets())
      names.push_back(p.name);
    return names;
  });
}
