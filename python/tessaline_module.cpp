// The Python module `tessaline` (its compiled part, tessaline._core, which tessaline/__init__.py
// re-exports): numpy frames in, one finished mesh out, through the library's public
// interface and its mesh library. The frames are copied out of numpy first; the run itself happens with
// the GIL released, and the step callback takes it back for each call.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tessaline/Tessaline.h"
#include "tessaline/TessalineMesh.h"
#include "tessaline/TessalineSession.h"

namespace py = pybind11;
using namespace SurfaceReconstruction;

namespace {

using Frames = std::vector<std::shared_ptr<FrameDataWithInfo>>;

// A status and the library's last-error text, raised in Python as tessaline.Error.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a user reads when memory ran out, and what to change.
constexpr const char* MEMORY_ADVICE = "lower the resolution or raise the memory limit";

// Thrown from the step callback to end a run when the Python callable raised (or Ctrl-C was pressed):
// the engine catches every exception inside process and returns 1.
struct StopRun {};

// Millimetres in one unit of the caller's points: "mm", "cm", "m", "in" or a number.
float millimetresPerUnit(const py::object& unit) {
    if (py::isinstance<py::str>(unit)) {
        const std::string name = unit.cast<std::string>();
        if (name == "mm") return 1.0f;
        if (name == "cm") return 10.0f;
        if (name == "m") return 1000.0f;
        if (name == "in") return 25.4f;
        throw py::value_error("unit must be 'mm', 'cm', 'm', 'in' or the millimetres in one unit, not '" + name + "'");
    }
    if (py::isinstance<py::bool_>(unit) || !PyNumber_Check(unit.ptr()))
        throw py::type_error("unit must be 'mm', 'cm', 'm', 'in' or the millimetres in one unit, not " +
                             py::str(py::type::handle_of(unit)).cast<std::string>());
    const double value = unit.cast<double>();
    if (!(value > 0.0) || !std::isfinite(value)) throw py::value_error("unit must be a positive number of millimetres");
    return static_cast<float>(value);
}

std::string describe(const py::array& a) {
    std::string shape = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d) shape += (d ? ", " : "") + std::to_string(a.shape(d));
    if (a.ndim() == 1) shape += ",";
    return py::str(a.dtype()).cast<std::string>() + " of shape " + shape + ")";
}

py::array asArray(py::handle value, const std::string& what) {
    py::array array = py::reinterpret_steal<py::array>(
        py::detail::npy_api::get().PyArray_FromAny_(value.ptr(), nullptr, 0, 0, 0, nullptr));
    if (!array) {
        PyErr_Clear();
        throw py::type_error(what + " must be a numpy array (or something numpy can turn into one)");
    }
    return array;
}

// An (N, 3) float array as vectors in millimetres. `origin` (millimetres, zero when not needed) is taken off
// in double precision before the one rounding to float, so that points far from the origin keep their detail.
std::vector<Vec3f> readVectors(py::handle value, const std::string& what, float scale, const double* origin = nullptr) {
    const py::array array = asArray(value, what);
    if (array.dtype().kind() != 'f')
        throw py::type_error(what + " must be a float array of shape (N, 3), not " + describe(array));
    if (array.ndim() != 2 || array.shape(1) != 3)
        throw py::value_error(what + " must have the shape (N, 3), not " + describe(array));
    if (origin != nullptr) {
        const auto doubles = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(array);
        std::vector<Vec3f> out(static_cast<std::size_t>(doubles.shape(0)));
        const double* data = doubles.data();
        for (std::size_t i = 0; i < out.size(); ++i)
            for (int k = 0; k < 3; ++k) out[i][k] = static_cast<float>(data[3 * i + k] * scale - origin[k]);
        return out;
    }
    const auto floats = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(array);
    std::vector<Vec3f> out(static_cast<std::size_t>(floats.shape(0)));
    const float* data = floats.data();
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = {data[3 * i] * scale, data[3 * i + 1] * scale, data[3 * i + 2] * scale};
    return out;
}

std::vector<std::int32_t> readWords(py::handle value, const std::string& what, std::size_t count) {
    const py::array array = asArray(value, what);
    const char kind = array.dtype().kind();
    if (kind != 'i' && kind != 'u')
        throw py::type_error(what + " must be an integer array of shape (N,), not " + describe(array));
    if (array.ndim() != 1 || static_cast<std::size_t>(array.shape(0)) != count)
        throw py::value_error(what + " must have the shape (" + std::to_string(count) + ",), one word a point, not " +
                              describe(array));
    std::vector<std::int32_t> out(count);
    if (kind == 'u') {
        const auto values = py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>::ensure(array);
        for (std::size_t i = 0; i < count; ++i) {
            if (values.data()[i] > 0xFFFFFFFFull) throw py::value_error(what + ": a word does not fit in 32 bits");
            out[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(values.data()[i]));
        }
    } else {
        const auto values = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(array);
        for (std::size_t i = 0; i < count; ++i) {
            const std::int64_t v = values.data()[i];
            if (v < INT32_MIN || v > 0xFFFFFFFFll) throw py::value_error(what + ": a word does not fit in 32 bits");
            out[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
        }
    }
    return out;
}

// One frame as given: its arrays, not yet copied. `normals` None: to be estimated.
struct FrameArrays {
    std::string name;
    py::object points, normals = py::none(), words = py::none(), sensor = py::none(), colors = py::none();
};

// One frame: a dict with "points" and optionally "normals", "words", "sensor" and "colors"; a tuple (points[,
// normals[, words[, sensor]]]); or an object with `points` and `normals` attributes (an Open3D point cloud;
// one whose has_normals() says False, or whose normals are empty, has none; its colors when has_colors()
// says so).
FrameArrays frameArrays(py::handle item, std::size_t index) {
    FrameArrays f;
    f.name = "frame " + std::to_string(index);
    const std::string& name = f.name;
    if (py::isinstance<py::array>(item))
        throw py::type_error(name +
                             " is an array: a frame is (points, normals[, words]) or a dict; to pass one frame, "
                             "wrap it in a list");
    if (py::isinstance<py::dict>(item)) {
        const py::dict d = py::reinterpret_borrow<py::dict>(item);
        for (auto entry : d) {
            const std::string key = py::str(entry.first).cast<std::string>();
            if (key != "points" && key != "normals" && key != "words" && key != "sensor" && key != "colors")
                throw py::value_error(name + ": unknown key '" + key +
                                      "' (use points, normals, words, sensor, colors)");
        }
        if (!d.contains("points")) throw py::value_error(name + ": no 'points' (a frame needs 'points')");
        f.points = d["points"];
        if (d.contains("normals")) f.normals = d["normals"];
        if (d.contains("words")) f.words = d["words"];
        if (d.contains("sensor")) f.sensor = d["sensor"];
        if (d.contains("colors")) f.colors = d["colors"];
    } else if (py::isinstance<py::tuple>(item) || py::isinstance<py::list>(item)) {
        const py::sequence s = py::reinterpret_borrow<py::sequence>(item);
        if (s.size() < 1 || s.size() > 4)
            throw py::type_error(name + ": a frame is (points[, normals[, words[, sensor]]]), not " +
                                 std::to_string(s.size()) + " items");
        f.points = s[0];
        if (s.size() > 1) f.normals = s[1];
        if (s.size() > 2) f.words = s[2];
        if (s.size() > 3) f.sensor = s[3];
    } else if (py::hasattr(item, "points") && py::hasattr(item, "normals")) {
        f.points = item.attr("points");
        const bool none = py::hasattr(item, "has_normals") && !item.attr("has_normals")().cast<bool>();
        if (!none) f.normals = item.attr("normals");
        if (!none && asArray(f.normals, name + " normals").size() == 0 &&
            asArray(f.points, name + " points").size() > 0)
            f.normals = py::none();
        if (py::hasattr(item, "colors") && py::hasattr(item, "has_colors") && item.attr("has_colors")().cast<bool>())
            f.colors = item.attr("colors");
    } else {
        throw py::type_error(name +
                             ": a frame is a dict with 'points' (and 'normals'), a tuple (points[, normals[, "
                             "words[, sensor]]]) or a point cloud with points and normals, not " +
                             py::str(py::type::handle_of(item)).cast<std::string>());
    }
    return f;
}

// What an array of a frame is called in an error: "frame 2 points", or "points" alone.
std::string label(const FrameArrays& f, const char* what) { return f.name.empty() ? what : f.name + " " + what; }

// Where a scanner stood: three finite numbers in the caller's unit, as millimetres less `origin`.
std::array<double, 3> readSensor(py::handle value, const std::string& what, float scale, const double* origin) {
    const py::array array = asArray(value, what);
    if ((array.dtype().kind() != 'f' && array.dtype().kind() != 'i' && array.dtype().kind() != 'u') ||
        array.ndim() != 1 || array.shape(0) != 3)
        throw py::value_error(what + " must be three numbers (x, y, z), not " + describe(array));
    const auto doubles = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(array);
    std::array<double, 3> position;
    for (int k = 0; k < 3; ++k) {
        position[k] = doubles.data()[k] * scale - (origin ? origin[k] : 0.0);
        if (!std::isfinite(position[k])) throw py::value_error(what + " must be finite");
    }
    return position;
}

std::shared_ptr<FrameDataWithInfo> readFrame(const FrameArrays& f, float scale, const double* origin) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    frame->xyz = readVectors(f.points, label(f, "points"), scale, origin);
    if (f.normals.is_none())
        frame->nor.assign(frame->xyz.size(), Vec3f{0.0f, 0.0f, 0.0f});  // estimated before the run
    else
        frame->nor = readVectors(f.normals, label(f, "normals"), 1.0f);
    if (frame->nor.size() != frame->xyz.size())
        throw py::value_error(f.name + ": " + std::to_string(frame->xyz.size()) + " points but " +
                              std::to_string(frame->nor.size()) + " normals");
    if (f.words.is_none())
        frame->w.assign(frame->xyz.size(), 8);  // one cell a resolution, no flags
    else
        frame->w = readWords(f.words, f.name + " words", frame->xyz.size());
    return frame;
}

// A frame's colours: uint8 (N, 3), or any integers from 0 to 255, or floats from 0 to 1 (rounded to a byte).
std::vector<Rgb> readColours(py::handle value, const std::string& what, std::size_t count) {
    const py::array array = asArray(value, what);
    const char kind = array.dtype().kind();
    if (kind != 'u' && kind != 'i' && kind != 'f')
        throw py::type_error(what + " must be a uint8 or float array of shape (N, 3), not " + describe(array));
    if (array.ndim() != 2 || array.shape(1) != 3 || static_cast<std::size_t>(array.shape(0)) != count)
        throw py::value_error(what + " must have the shape (" + std::to_string(count) +
                              ", 3), one colour a point, not " + describe(array));
    const auto values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(array);
    const double top = kind == 'f' ? 1.0 : 255.0;
    std::vector<Rgb> out(count);
    for (std::size_t i = 0; i < count; ++i)
        for (int k = 0; k < 3; ++k) {
            const double v = values.data()[3 * i + k];
            if (!(v >= 0.0 && v <= top))
                throw py::value_error(what + ": a value outside 0 to " + (kind == 'f' ? "1" : "255") + " (" +
                                      std::to_string(v) + ")");
            out[i][k] = static_cast<std::uint8_t>(std::lround(v * 255.0 / top));
        }
    return out;
}

// The frames, and where points given in double precision lie: their origin, a whole number of metres near
// the middle of their box (0 within half a metre of the origin), is taken off before they become floats.
struct Input {
    Frames frames;
    bool doubles = false;                    // some points came as float64: the mesh goes back as float64
    double origin[3] = {0.0, 0.0, 0.0};      // millimetres
    std::vector<FrameNormalSource> sources;  // one a frame: whose normals to estimate, where its scanner stood
    bool missing_normals = false;
    // The points of the frames that came with colours, and their colours: the mesh's colours come from them.
    bool coloured = false;
    std::vector<Vec3f> colour_points;
    std::vector<Rgb> colours;
};

// The frames; `sensor` (None, or where the scanner stood in the caller's unit) serves the frames without
// normals that name no scanner of their own.
Input readFrameArrays(const std::vector<FrameArrays>& arrays, float scale, const py::object& sensor);

Input readFrames(const py::object& frames, float scale, const py::object& sensor = py::none()) {
    if (py::isinstance<py::dict>(frames) || py::isinstance<py::array>(frames))
        throw py::type_error("frames must be a list of frames; to pass one frame, wrap it in a list");
    if (!py::isinstance<py::sequence>(frames) && !py::isinstance<py::iterable>(frames))
        throw py::type_error("frames must be a list of frames");
    std::vector<FrameArrays> arrays;
    std::size_t index = 0;
    for (py::handle item : frames) arrays.push_back(frameArrays(item, index++));
    return readFrameArrays(arrays, scale, sensor);
}

Input readFrameArrays(const std::vector<FrameArrays>& arrays, float scale, const py::object& sensor) {
    Input in;
    double lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    for (const FrameArrays& f : arrays) {
        const py::array a = asArray(f.points, label(f, "points"));
        if (a.dtype().kind() != 'f' || a.itemsize() != 8 || a.ndim() != 2 || a.shape(1) != 3) continue;
        in.doubles = true;
        const auto d = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
        for (py::ssize_t i = 0; i < d.shape(0); ++i)
            for (int k = 0; k < 3; ++k) {
                const double v = d.data()[3 * i + k] * scale;
                if (std::isfinite(v)) {
                    lo[k] = std::min(lo[k], v);
                    hi[k] = std::max(hi[k], v);
                }
            }
    }
    bool shifted = false;
    for (int k = 0; k < 3; ++k) {
        const double middle = lo[k] <= hi[k] ? 0.5 * (lo[k] + hi[k]) : 0.0;
        in.origin[k] = std::round(middle / 1000.0) * 1000.0;
        shifted = shifted || in.origin[k] != 0.0;
    }
    const double* origin = shifted ? in.origin : nullptr;
    FrameNormalSource common;
    if (!sensor.is_none()) {
        common.sensor_known = true;
        common.sensor = readSensor(sensor, "sensor", scale, origin);
    }
    for (const FrameArrays& f : arrays) {
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();  // Ctrl-C while a large scan is copied
        in.frames.push_back(readFrame(f, scale, origin));
        if (!f.colors.is_none()) {
            const std::vector<Rgb> colours = readColours(f.colors, label(f, "colors"), in.frames.back()->xyz.size());
            in.coloured = true;
            in.colour_points.insert(in.colour_points.end(), in.frames.back()->xyz.begin(), in.frames.back()->xyz.end());
            in.colours.insert(in.colours.end(), colours.begin(), colours.end());
        }
        FrameNormalSource source = common;
        source.estimate = f.normals.is_none();
        if (!f.sensor.is_none()) {
            source.sensor_known = true;
            source.sensor = readSensor(f.sensor, label(f, "sensor"), scale, origin);
        }
        in.sources.push_back(source);
        in.missing_normals = in.missing_normals || source.estimate;
    }
    return in;
}

// Estimates the normals of the frames that came without them (GIL released); None when all had normals,
// else the counts as a dict.
py::object estimateMissingNormals(Input& in) {
    if (!in.missing_normals) return py::none();
    NormalEstimate estimate;
    int status;
    {
        py::gil_scoped_release released;
        status = estimateNormals(in.frames, in.sources, estimate);
    }
    if (status != 0) throw Error("estimating the normals failed with status " + std::to_string(status));
    py::dict counts;
    counts["points"] = estimate.points;
    counts["neighbours"] = estimate.neighbours;
    counts["toward_sensor"] = estimate.toward_sensor;
    counts["propagated"] = estimate.propagated;
    counts["left_out"] = estimate.left_out;
    counts["too_few_neighbours"] = estimate.too_few_neighbours;
    counts["no_clear_plane"] = estimate.no_clear_plane;
    counts["pieces_from_extremes"] = estimate.pieces_from_extremes;
    return std::move(counts);
}

// Ctrl-C during a run. Python's handler only runs when the interpreter does, which it does not while the
// library works with the GIL released. For the length of a run on the main thread a handler of the module's
// stands in front of Python's: it counts the signal and hands it on (Python raises KeyboardInterrupt once
// the call returns), and a watcher thread asks the engine to stop as soon as it sees the count move.
std::mutex g_interrupt_lock;
int g_interrupt_users = 0;
struct sigaction g_python_handler;
std::atomic<unsigned> g_interrupts{0};

extern "C" void onInterrupt(int signal, siginfo_t* info, void* context) {
    g_interrupts.fetch_add(1);
    if (g_python_handler.sa_flags & SA_SIGINFO) {
        if (g_python_handler.sa_sigaction != nullptr) g_python_handler.sa_sigaction(signal, info, context);
    } else if (g_python_handler.sa_handler != SIG_IGN && g_python_handler.sa_handler != SIG_DFL) {
        g_python_handler.sa_handler(signal);
    }
}

class InterruptWatch {
public:
    // With the GIL held. Off the main thread, Ctrl-C is not this call's: nothing is armed.
    explicit InterruptWatch(Tessaline& engine) : m_engine(engine), m_start(g_interrupts.load()) {
        const py::module_ threading = py::module_::import("threading");
        if (!threading.attr("current_thread")().is(threading.attr("main_thread")())) return;
        {
            std::lock_guard<std::mutex> lock(g_interrupt_lock);
            if (g_interrupt_users++ == 0) {
                struct sigaction ours = {};
                ours.sa_sigaction = onInterrupt;
                ours.sa_flags = SA_SIGINFO | SA_RESTART;
                sigemptyset(&ours.sa_mask);
                sigaction(SIGINT, &ours, &g_python_handler);
            }
        }
        m_armed = true;
        m_watcher = std::thread([this] {
            std::unique_lock<std::mutex> lock(m_lock);
            while (!m_done) {
                if (seen()) {
                    m_engine.requestStop();
                    return;
                }
                m_wake.wait_for(lock, std::chrono::milliseconds(20));
            }
        });
    }
    ~InterruptWatch() {
        if (!m_armed) return;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_done = true;
        }
        m_wake.notify_all();
        m_watcher.join();
        std::lock_guard<std::mutex> lock(g_interrupt_lock);
        if (--g_interrupt_users == 0) sigaction(SIGINT, &g_python_handler, nullptr);
    }
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    // Ctrl-C came since the watch began.
    bool seen() const { return m_armed && g_interrupts.load() != m_start; }

private:
    Tessaline& m_engine;
    const unsigned m_start;
    bool m_armed = false;
    bool m_done = false;
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::thread m_watcher;
};

// Raises KeyboardInterrupt, through Python's own handler where it is pending.
[[noreturn]] void raiseInterrupt() {
    if (PyErr_CheckSignals() == 0) PyErr_SetNone(PyExc_KeyboardInterrupt);
    throw py::error_already_set();
}

struct Mesh {
    py::array vertices, triangles, words, normals;
    py::object colors = py::none();            // uint8 (V, 3) when some frame came with colours
    float resolution = 0.0f;                   // millimetres
    py::object point_spacing = py::none();     // (median, even) in millimetres, when the resolution was chosen from it
    py::object scale_codes = py::none();       // 'auto': {code: points given it}, from the points' density
    py::object normals_estimate = py::none();  // the counts of estimateNormals, when some frames had no normals
};

struct StepCall {
    py::object callable;                         // None: the callback only checks for Ctrl-C
    std::optional<py::error_already_set> error;  // what the callable raised
};

// The mesh in the caller's unit: float32 vertices, or float64 ones moved back by the origin in double
// precision when the points came as float64.
Mesh toPython(const IndexedMesh& mesh, float scale, const Input& in) {
    Mesh out;
    const py::ssize_t v = static_cast<py::ssize_t>(mesh.vertices.size());
    const py::ssize_t t = static_cast<py::ssize_t>(mesh.triangles.size());
    py::array_t<float> normals({v, py::ssize_t(3)});
    py::array_t<std::int32_t> triangles({t, py::ssize_t(3)});
    py::array_t<std::uint32_t> words(v);
    float* np_ = normals.mutable_data();
    for (py::ssize_t i = 0; i < v; ++i) {
        for (int k = 0; k < 3; ++k)
            np_[3 * i + k] = mesh.normals.empty() ? 0.0f : mesh.normals[static_cast<std::size_t>(i)][k];
        words.mutable_data()[i] = mesh.words[static_cast<std::size_t>(i)];
    }
    if (in.doubles) {
        py::array_t<double> vertices({v, py::ssize_t(3)});
        double* vp = vertices.mutable_data();
        for (py::ssize_t i = 0; i < v; ++i)
            for (int k = 0; k < 3; ++k)
                vp[3 * i + k] =
                    (static_cast<double>(mesh.vertices[static_cast<std::size_t>(i)][k]) + in.origin[k]) / scale;
        out.vertices = vertices;
    } else {
        py::array_t<float> vertices({v, py::ssize_t(3)});
        float* vp = vertices.mutable_data();
        for (py::ssize_t i = 0; i < v; ++i)
            for (int k = 0; k < 3; ++k) vp[3 * i + k] = mesh.vertices[static_cast<std::size_t>(i)][k] / scale;
        out.vertices = vertices;
    }
    std::int32_t* tp = triangles.mutable_data();
    for (py::ssize_t i = 0; i < t; ++i)
        for (int k = 0; k < 3; ++k)
            tp[3 * i + k] = static_cast<std::int32_t>(mesh.triangles[static_cast<std::size_t>(i)][k]);
    out.normals = normals;
    out.triangles = triangles;
    out.words = words;
    if (in.coloured) {
        py::array_t<std::uint8_t> colors({v, py::ssize_t(3)});
        if (!mesh.colors.empty()) std::memcpy(colors.mutable_data(), mesh.colors.data(), mesh.colors.size() * 3);
        out.colors = colors;
    }
    return out;
}

// A count the caller gives: a whole number from 0 up.
std::size_t count(const py::object& value, const char* name) {
    if (py::isinstance<py::bool_>(value) || !py::isinstance<py::int_>(value))
        throw py::type_error(std::string(name) + " must be a whole number, not " +
                             py::str(py::type::handle_of(value)).cast<std::string>());
    const long long n = value.cast<long long>();
    if (n < 0) throw py::value_error(std::string(name) + " must be 0 or more, not " + std::to_string(n));
    return static_cast<std::size_t>(n);
}

void warn(const std::string& text) {
    if (PyErr_WarnEx(PyExc_RuntimeWarning, text.c_str(), 2) != 0) throw py::error_already_set();
}

std::string millimetres(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3g mm", value);
    return text;
}

// A run origin (x, y, z) in the caller's unit as millimetres, or nothing for None.
std::optional<std::array<double, 3>> readOrigin(const py::object& value, float scale) {
    if (value.is_none()) return std::nullopt;
    const auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(value);
    if (!a || a.ndim() != 1 || a.shape(0) != 3) throw py::value_error("origin must be None or three numbers (x, y, z)");
    std::array<double, 3> origin{};
    for (int k = 0; k < 3; ++k) {
        origin[static_cast<std::size_t>(k)] = a.data()[k] * static_cast<double>(scale);
        if (!std::isfinite(origin[static_cast<std::size_t>(k)])) throw py::value_error("origin must be finite");
    }
    return origin;
}

// A block edge in resolutions: None for the default, else a power of two from 32 to 512.
std::uint32_t readBlockSize(const py::object& value) {
    if (value.is_none()) return 0;
    if (!py::isinstance<py::int_>(value) || py::isinstance<py::bool_>(value))
        throw py::type_error("block_size must be None or a whole number of resolutions");
    const long long cells = value.cast<long long>();
    if (cells < 32 || cells > 512 || (cells & (cells - 1)) != 0)
        throw py::value_error("block_size must be a power of two from 32 to 512 resolutions");
    return static_cast<std::uint32_t>(cells);
}

Mesh reconstruct(const py::object& frames_in, const py::object& resolution_in, const py::object& unit,
                 const py::object& step_callback, const py::object& min_piece_in, const py::object& fill_holes_in,
                 bool verbose, const py::object& sensor, const py::object& origin_in, const py::object& block_size_in) {
    const float scale = millimetresPerUnit(unit);
    const std::optional<std::array<double, 3>> run_origin = readOrigin(origin_in, scale);
    const std::uint32_t block_size = readBlockSize(block_size_in);
    const std::size_t min_piece = count(min_piece_in, "min_piece"), fill_holes = count(fill_holes_in, "fill_holes");
    if (fill_holes > 0 && fill_holes < 3)
        throw py::value_error("fill_holes must be 0 or at least 3 (a hole has three edges or more)");
    if (!step_callback.is_none() && !PyCallable_Check(step_callback.ptr()))
        throw py::type_error("step_callback must be callable (it receives a StepInfo)");
    const bool automatic = py::isinstance<py::str>(resolution_in);
    if (automatic && resolution_in.cast<std::string>() != "auto")
        throw py::value_error("resolution must be a number of millimetres or 'auto'");
    if (!automatic && !PyNumber_Check(resolution_in.ptr()))
        throw py::type_error("resolution must be a number of millimetres or 'auto'");
    float resolution = automatic ? 0.0f : resolution_in.cast<float>();
    Input input = readFrames(frames_in, scale, sensor);
    Frames& frames = input.frames;
    const py::object normals_estimate = estimateMissingNormals(input);
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();

    PointSpacing spacing;
    ScaleCodeChoice codes;
    bool measured = false;
    if (automatic) {
        // Every point's code from the density around it (the frames are the module's copies), and the
        // resolution.
        int status;
        {
            py::gil_scoped_release released;
            status = chooseScaleCodes(frames, codes);
        }
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (status != 0)
            throw Error("choosing the cell sizes from the points failed with status " + std::to_string(status));
        measured = true;
        spacing = codes.spacing;
        resolution = codes.resolution;
        if (!(resolution > 0.0f)) {
            resolution = 0.5f;
            warn("the point spacing cannot be measured (fewer than two distinct points): resolution 0.5 mm");
        }
    }

    Tessaline engine;
    // The library's lines go through a sink: nowhere unless verbose (then to standard output, as printed).
    if (!verbose) engine.setDiagnosticSink([](const std::string&, bool) {});
    const int init_status = engine.init();
    if (init_status == TESSALINE_OUT_OF_MEMORY)
        throw Error("setting up the engine failed with status " + std::to_string(init_status) + ": " +
                    engine.getLastErrorMsg());
    if (init_status != 0) throw Error("no usable compute device: " + engine.getLastErrorMsg());
    engine.setResolution(resolution);
    if (engine.getLastErrorMsg() != "no error!") {  // the exported setter returns nothing
        const std::string text = engine.getLastErrorMsg();
        engine.deInit();
        throw py::value_error(text);
    }
    if (run_origin) {
        // The frames' own shift (float64 points) is already off them: the grid's origin is taken from it too.
        std::array<double, 3> relative = *run_origin;
        for (int k = 0; k < 3; ++k) relative[static_cast<std::size_t>(k)] -= input.doubles ? input.origin[k] : 0.0;
        engine.setRunOrigin(relative);
    }
    engine.setBlockSize(block_size);
    StepCall call{step_callback, std::nullopt};
    engine.setProcessStepCallBack([&call](ProcessStepInfo& info) {
        py::gil_scoped_acquire gil;
        try {
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
            if (!call.callable.is_none()) call.callable(info);
        } catch (py::error_already_set& e) {
            call.error = std::move(e);
            throw StopRun();
        }
        return 0;
    });
    for (const auto& frame : frames) {
        if (engine.addScanFrame_ALL(frame) != 0) {
            const std::string text = engine.getLastErrorMsg();
            engine.deInit();
            throw Error("frame refused: " + text);
        }
    }

    int status, mesh_status = 0;
    std::string last_error;
    IndexedMesh mesh;
    double expected = 0.0;
    std::size_t removed = 0;
    const InterruptWatch interrupt(engine);
    {
        py::gil_scoped_release released;
        auto soup = std::make_shared<MultiMeshData>();
        status = engine.process(soup);
        last_error = engine.getLastErrorMsg();
        engine.deInit();
        // The steps after the run each take well under a second; Ctrl-C is looked at between them.
        if (status == 0 && !interrupt.seen()) {
            mesh_status = weldMesh(*soup, resolution * 1e-4f, mesh);
            soup.reset();
            if (mesh_status == 0 && !interrupt.seen()) mesh_status = removeSmallPieces(mesh, min_piece, &removed);
            if (mesh_status == 0 && !interrupt.seen()) mesh_status = fillSmallHoles(mesh, fill_holes);
            if (mesh_status == 0 && input.coloured && !interrupt.seen())
                mesh_status = colourVertices(mesh, input.colour_points, input.colours, resolution);
            // Only the warning needs it here: an estimate from a thinned sample.
            if (mesh_status == 0 && !measured) measured = estimatePointSpacing(frames, spacing) == 0;
            expected = expectedTriangles(frames, spacing, resolution);
        }
        frames.clear();
    }
    if (call.error) throw *call.error;
    if (interrupt.seen()) raiseInterrupt();
    if (status != 0) throw Error("reconstruction failed with status " + std::to_string(status) + ": " + last_error);
    if (mesh_status != 0)
        throw Error("finishing the mesh failed with status " + std::to_string(mesh_status) +
                    (mesh_status == TESSALINE_OUT_OF_MEMORY ? std::string(": memory ran out; ") + MEMORY_ADVICE : ""));
    const float suggested = autoResolutionForSpacing(spacing);  // what 'auto' takes: the finest cells, code 8
    const std::string advice = suggested > 0.0f ? "; resolution='auto' would take " + millimetres(suggested) : "";
    if (mesh.triangles.empty() && removed > 0)
        warn("the mesh is empty: min_piece=" + std::to_string(min_piece) + " removed every piece (" +
             std::to_string(removed) + " triangles in all); give a smaller min_piece");
    else if (mesh.triangles.empty())
        warn("the mesh is empty: at " + millimetres(resolution) + " no cell holds enough points (points " +
             "as dense as an even " + millimetres(spacing.density) + ")" + advice);
    else if (static_cast<double>(mesh.triangles.size()) + static_cast<double>(removed) < expected / 4.0)
        warn("the mesh has " + std::to_string(mesh.triangles.size()) + " triangles where points " +
             "as dense as an even " + millimetres(spacing.density) + " should give about " +
             std::to_string(std::llround(expected)) + ": the resolution " + millimetres(resolution) +
             " is too fine for them" + advice);
    Mesh out = toPython(mesh, scale, input);
    out.resolution = resolution;
    out.normals_estimate = normals_estimate;
    if (automatic && spacing.median > 0.0f) out.point_spacing = py::make_tuple(spacing.median, spacing.density);
    if (automatic && codes.resolution > 0.0f) {
        py::dict given;
        for (int k = 0; k < 7; ++k) given[py::int_(64 >> k)] = codes.points[k];
        out.scale_codes = given;
    }
    return out;
}

const char* const SESSION_DOC = R"(A live session: frames added as the scanner delivers them, the mesh kept up to date.

    session = tessaline.Session(resolution=0.5, unit="mm", origin=None, block_size=None)
    session.add(frames); keys, parts = session.update(); mesh = session.mesh()

An update re-meshes only the blocks that the new points reach and those whose seams touch them; after any
sequence of adds and updates, mesh() is the mesh that reconstruct gives for all frames so far with
origin=session.origin and block_size=session.block_size. Points are taken as float32 in the session's
unit (float64 points must lie within half a metre of the origin of their coordinates).)";

// tessaline.Session: the frames converted as reconstruct converts them, the blocks on the library's session.
class PySession {
public:
    PySession(const py::object& resolution, const py::object& unit, const py::object& origin,
              const py::object& block_size)
        : m_scale(millimetresPerUnit(unit)),
          m_session(readResolution(resolution, millimetresPerUnit(unit)), readOrigin(origin, m_scale),
                    readBlockSize(block_size)) {}

    void add(const py::object& frames) {
        Input in = readFrames(frames, m_scale);
        if (in.missing_normals) throw py::value_error("Session frames need normals");
        for (int k = 0; k < 3; ++k)
            if (in.origin[k] != 0.0)
                throw py::value_error("Session points lie too far out for float32: give them nearer the origin");
        for (const auto& frame : in.frames)
            if (m_session.add(frame) != 0) throw Error(m_session.lastError());
    }

    py::tuple update() {
        std::vector<BlockKey> keys;
        std::vector<MeshPart> parts;
        int status;
        {
            py::gil_scoped_release released;
            status = m_session.update(keys, parts);
        }
        if (status != 0)
            throw Error("update failed with status " + std::to_string(status) + ": " + m_session.lastError());
        py::list key_list;
        for (const BlockKey& k : keys) key_list.append(py::make_tuple(k.x, k.y, k.z));
        py::dict part_dict;
        for (const MeshPart& p : parts) {
            const py::ssize_t t = static_cast<py::ssize_t>(p.mesh.xyz.size());
            py::array_t<float> xyz({t, py::ssize_t(3), py::ssize_t(3)});
            py::array_t<std::uint32_t> words({t, py::ssize_t(3)});
            for (py::ssize_t i = 0; i < t; ++i) {
                for (int v = 0; v < 9; ++v)
                    xyz.mutable_data()[9 * i + v] = p.mesh.xyz[static_cast<std::size_t>(i)].xyz[v] / m_scale;
                for (int v = 0; v < 3; ++v)
                    words.mutable_data()[3 * i + v] = p.mesh.w[static_cast<std::size_t>(i)].w[v];
            }
            part_dict[py::make_tuple(p.block.x, p.block.y, p.block.z)] = py::make_tuple(xyz, words);
        }
        return py::make_tuple(key_list, part_dict);
    }

    Mesh mesh() const {
        IndexedMesh welded;
        int status;
        {
            py::gil_scoped_release released;
            status = m_session.mesh(welded);
        }
        if (status != 0) throw Error("welding the mesh failed with status " + std::to_string(status));
        Mesh out = toPython(welded, m_scale, Input{});
        out.resolution = m_session.resolution();
        return out;
    }

    py::object origin() const {
        const auto o = m_session.origin();
        if (!o) return py::none();
        return py::make_tuple((*o)[0] / m_scale, (*o)[1] / m_scale, (*o)[2] / m_scale);
    }
    std::uint32_t blockSize() const { return m_session.blockSize(); }

private:
    static float readResolution(const py::object& value, float scale) {
        if (!PyNumber_Check(value.ptr()) || py::isinstance<py::str>(value))
            throw py::type_error("resolution must be a number in the session's unit");
        const float r = value.cast<float>() * scale;
        if (!(r >= 0.001f && r <= 100000.0f)) throw py::value_error("resolution must lie in 0.001-100000 mm");
        return r;
    }

    float m_scale;
    ScanSession m_session;
};

// The spacing of the frames' points, in their own unit: (median to the nearest point, even spacing as dense).
py::tuple pointSpacing(const py::object& frames_in) {
    Input input = readFrames(frames_in, 1.0f);
    estimateMissingNormals(input);  // the points the run would use: those left out do not count
    const Frames& frames = input.frames;
    PointSpacing spacing;
    int status;
    {
        py::gil_scoped_release released;
        status = measurePointSpacing(frames, spacing);
    }
    if (status != 0) throw Error("measuring the point spacing failed with status " + std::to_string(status));
    return py::make_tuple(spacing.median, spacing.density);
}

// The normals of one cloud, as reconstruct estimates those of a frame without them.
py::array_t<float> estimateNormalsOf(const py::object& points, const py::object& sensor, const py::object& k) {
    const std::size_t neighbours = count(k, "neighbours");
    if (neighbours < 5 || neighbours > 64)
        throw py::value_error("neighbours must be from 5 to 64, not " + std::to_string(neighbours));
    FrameArrays f;
    f.points = points;
    Input input = readFrameArrays({f}, 1.0f, sensor);
    NormalOptions options;
    options.neighbours = static_cast<int>(neighbours);
    NormalEstimate estimate;
    int status;
    {
        py::gil_scoped_release released;
        status = estimateNormals(input.frames, input.sources, estimate, options);
    }
    if (status != 0) throw Error("estimating the normals failed with status " + std::to_string(status));
    const std::vector<Vec3f>& normals = input.frames[0]->nor;
    py::array_t<float> out({static_cast<py::ssize_t>(normals.size()), py::ssize_t(3)});
    if (!normals.empty()) std::memcpy(out.mutable_data(), normals.data(), normals.size() * sizeof(Vec3f));
    return out;
}

}  // namespace

namespace {

const char* const RECONSTRUCT_DOC = R"(Fuses scan frames into one mesh.

frames: a list of frames, each a dict {"points": P, "normals": N, "words": W, "sensor": S, "colors": C}
    (all but points optional), a tuple (P,), (P, N), (P, N, W) or (P, N, W, S), or a point cloud with points
    and normals attributes (Open3D's, with its colors when it has them). P and N are float arrays of shape
    (n, 3) in the common coordinate system of the scan, N pointing out of the surface; W an integer array of
    shape (n,): bits 0-7 the scale code (8 when absent), bits 8-15 flags; C the points' colours, uint8 (n, 3)
    red, green, blue (integers 0-255) or floats from 0 to 1. The arrays are copied; nothing is kept after the
    call. When some frames have colours, Mesh.colors gives every vertex the mean of the coloured points near
    it (see Mesh.colors).
    A frame without normals (none given, N None, or a point cloud without them) gets them as
    estimate_normals makes them, all such frames together and every point a neighbour: a plane through each
    point and its 16 nearest, turned toward S (x, y, z in the unit of the points: where the scanner stood)
    when the frame gives one, else toward `sensor`, else oriented over the neighbour graph from the outside
    in. A point whose plane is ambiguous is left out of the run; Mesh.normals_estimate counts them. Points given as float64 keep their precision far from the
    origin: a whole number of metres near their middle is taken off in double precision before they become
    floats, and the mesh's vertices come back as float64 with it added back.
resolution: the edge of the finest cells in millimetres, or "auto": every point's scale code is set from the
    density of the points around it (sparse places get coarser cells; a wish for finer cells is kept where
    the points are dense enough), and the resolution, the finest cells, is 1.5 times the spacing of an even
    sampling as dense as the points (2 times where at least a tenth of the points ask for cells finer than
    code 8's); Mesh.scale_codes counts the points given each code.
unit: the unit of the points: "mm" (default), "cm", "m", "in" or the millimetres in one unit. The mesh comes
    back in it.
step_callback: called with a StepInfo before each step of the run, on the calling thread; an exception it
    raises ends the run and is raised here. Ctrl-C ends a run the same way.
min_piece: remove pieces of fewer triangles than this. fill_holes: close holes of at most this many edges.
sensor: where the scanner stood (x, y, z in `unit`), for the frames without normals that give no S.
origin: None, or the run's origin (x, y, z in `unit`): where positions are measured from and the grid of
  blocks starts (Session.origin, for the mesh of a session). block_size: None (256 resolutions, 128 below
  0.2 mm), or a power of two from 32 to 512 resolutions.
verbose: let the library's diagnostic lines through to standard output (by default they are silenced,
    which silences the whole process's standard output for the length of the run).

Returns a Mesh. Raises tessaline.Error (a RuntimeError) with the library's text when the run fails,
TypeError or ValueError for frames it cannot use; warns (RuntimeWarning) when the mesh is empty or far
smaller than the points suggest. The GIL is released during the run.)";

const char* const ESTIMATE_NORMALS_DOC = R"(Normals for points that have none, as reconstruct makes them.

points: a float array of shape (n, 3). sensor: None, or where the scanner stood (x, y, z, the points' unit).
neighbours: the plane of each point is fitted to it and this many nearest points (5 to 64; 16 by default):
    the normal is the direction in which they spread least.

With a sensor each normal is turned toward it; without, the normals are oriented consistently over a minimum
spanning tree of patches of neighbouring points (edges weighted by how far two patches' normals are from
parallel and how far each lies off the other's plane), each connected piece from its extreme point whose
normal lies closest to its axis (the point of largest x faces +x, and so on): outward on a closed surface,
toward the bulging side of an open sheet.
Returns float32 (n, 3) unit normals, in the order of the points; a row of zeros where the plane is
ambiguous (fewer than half the neighbours near, the least spread not clearly below the middle one: a
corner, a line, an isolated point) or the point is not finite. Deterministic; the GIL is released.)";

}  // namespace

// The program's pieces for distributed runs (distributed_bindings.cpp).
void bindTools(py::module_& core);

PYBIND11_MODULE(_core, m) {
    m.doc() =
        "Tessaline: registered laser-scan frames in, one triangle mesh out.\n\n"
        "    mesh = tessaline.reconstruct([(points, normals)], resolution='auto')\n\n"
        "points and normals are float arrays of shape (N, 3); the result has numpy vertices, triangles,\n"
        "words and normals (and colors, when the frames have them: {'points': P, 'normals': N, 'colors': C}).\n"
        "A frame without normals, [(points,)], gets them estimated (estimate_normals).";
    m.attr("__version__") = TESSALINE_VERSION_STRING;
    m.attr("backend") = TESSALINE_BACKEND;
    m.attr("RESOLUTION_PER_SPACING") = RESOLUTION_PER_SPACING;
    static py::exception<Error>& error_type = py::register_exception<Error>(m, "Error", PyExc_RuntimeError);
    error_type.attr("__module__") = "tessaline";
    // Memory that the module's own work (the frames' copies, the mesh's arrays) cannot have is reported as
    // the library reports it: tessaline.Error with the memory status, not a bare MemoryError.
    py::register_exception_translator([](std::exception_ptr failure) {
        try {
            if (failure) std::rethrow_exception(failure);
        } catch (const std::bad_alloc&) {
            PyErr_SetString(
                error_type.ptr(),
                ("out of memory (status " + std::to_string(TESSALINE_OUT_OF_MEMORY) + "); " + MEMORY_ADVICE).c_str());
        }
    });

    py::class_<ProcessStepInfo>(m, "StepInfo", "One step of a run, as the step callback receives it.")
        .def_property_readonly("step_name", [](const ProcessStepInfo& s) { return s.step_name; })
        .def_readonly("cur_step", &ProcessStepInfo::cur_step)
        .def_readonly("total_steps", &ProcessStepInfo::total_steps)
        .def_readonly("cur_sub_step", &ProcessStepInfo::cur_sub_step)
        .def_readonly("total_sub_steps", &ProcessStepInfo::total_sub_steps)
        .def("__repr__", [](const ProcessStepInfo& s) {
            return "StepInfo(step " + std::to_string(s.cur_step) + " of " + std::to_string(s.total_steps) + ", part " +
                   std::to_string(s.cur_sub_step) + " of " + std::to_string(s.total_sub_steps) + ")";
        });

    py::class_<Mesh>(m, "Mesh", "A finished mesh: welded vertices with their words, normals and colours.")
        .def_readonly("vertices", &Mesh::vertices,
                      "(V, 3) in the unit of the frames: float32, or float64 when the points came as float64")
        .def_readonly("triangles", &Mesh::triangles, "int32 (T, 3), vertex indices, counter-clockwise from the front")
        .def_readonly("words", &Mesh::words, "uint32 (V,): bits 0-7 scale codes, 8-15 flags, 16-31 quality")
        .def_readonly("normals", &Mesh::normals, "float32 (V, 3), unit area-weighted vertex normals")
        .def_readonly("colors", &Mesh::colors,
                      "uint8 (V, 3) red, green, blue from the points of the frames that came with colors: the mean, "
                      "in linear light, of those within a cell edge of the vertex, weighted exp(-4 (d / edge)^2) "
                      "(farther ones, or the nearest, where none is that near); None when no frame had colors")
        .def_readonly("resolution", &Mesh::resolution, "the finest cell edge of the run, millimetres")
        .def_readonly("point_spacing", &Mesh::point_spacing,
                      "('auto' only) the points' median spacing to the nearest point and the even spacing as dense, mm")
        .def_readonly("scale_codes", &Mesh::scale_codes,
                      "('auto' only) {code: points}: how many points were given each scale code, 64 to 1, from "
                      "the density around them (only 8 and coarser are given); None for a fixed resolution")
        .def_readonly("normals_estimate", &Mesh::normals_estimate,
                      "None, or where frames came without normals the counts of their estimate: points, "
                      "neighbours, toward_sensor, propagated (oriented from the outside in), left_out, "
                      "too_few_neighbours, no_clear_plane, pieces_from_extremes")
        .def("__repr__", [](const Mesh& mesh) {
            return "Mesh(" + std::to_string(mesh.vertices.shape(0)) + " vertices, " +
                   std::to_string(mesh.triangles.shape(0)) + " triangles)";
        });

    m.def("reconstruct", &reconstruct, py::arg("frames"), py::arg("resolution") = "auto", py::kw_only(),
          py::arg("unit") = "mm", py::arg("step_callback") = py::none(), py::arg("min_piece") = 0,
          py::arg("fill_holes") = 0, py::arg("verbose") = false, py::arg("sensor") = py::none(),
          py::arg("origin") = py::none(), py::arg("block_size") = py::none(), RECONSTRUCT_DOC);

    py::class_<PySession>(m, "Session", SESSION_DOC)
        .def(py::init<const py::object&, const py::object&, const py::object&, const py::object&>(), py::kw_only(),
             py::arg("resolution"), py::arg("unit") = "mm", py::arg("origin") = py::none(),
             py::arg("block_size") = py::none())
        .def("add", &PySession::add, py::arg("frames"),
             "Keeps copies of the frames (a list, as for reconstruct; normals required); nothing is computed.")
        .def("update", &PySession::update,
             "Re-meshes the blocks that the frames added since the last update reach, with those whose seams\n"
             "touch them. Returns (keys, parts): the re-meshed blocks' keys (i, j, k) in order, and a dict from\n"
             "key to (triangles float32 (T, 3, 3) in the session's unit, words uint32 (T, 3)) for those with\n"
             "triangles.")
        .def("mesh", &PySession::mesh, "The whole welded mesh now: the mesh of one run over the frames so far.")
        .def_property_readonly("origin", &PySession::origin,
                               "the grid's origin in the session's unit (fixed by the first update when not given)")
        .def_property_readonly("block_size", &PySession::blockSize, "the block edge in resolutions");
    m.def("point_spacing", &pointSpacing, py::arg("frames"),
          "(median, even): the median distance from a point to its nearest neighbour at another position, and\n"
          "the spacing of an even sampling as dense as the points, over all frames together, in the unit of\n"
          "the points; (0.0, 0.0) with fewer than two distinct points. Frames without normals count the points\n"
          "whose normals can be estimated.");
    m.def("estimate_normals", &estimateNormalsOf, py::arg("points"), py::arg("sensor") = py::none(), py::kw_only(),
          py::arg("neighbours") = 16, ESTIMATE_NORMALS_DOC);
    bindTools(m);
}
