// kord._kord, the native half of the Python module: opening, making and
// describing disks, the disk calls behind the module's file object, and
// kord.Error. Every call that touches files runs without the interpreter
// lock, and reads go straight into the caller's buffer.
#include "CPyDisk.h"

#include "base/CLocalFileSystem.h"
#include "base/Errno.h"
#include "info/DiskInfo.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <optional>

namespace py = pybind11;

namespace {

using kord::CVMDKDisk;

zu::IFileSystem* localFileSystem()
{
    static zu::P<zu::IFileSystem> fileSystem = zu::newObj<zu::CLocalFileSystem>();
    return fileSystem;
}

// Paths come as the file system's bytes (os.fsencode), as the tool gets them.
zu::CURI pathToURI(const std::string& path) { return zu::CLocalFileSystem::pathToURI(zu::String(path)).toNormalized(); }

zu::String passwordOf(const std::optional<std::string>& password) { return password ? zu::String(*password) : zu::String(); }

zu::P<CVMDKDisk> openAny(const std::string& path, int access, const std::optional<std::string>& password)
{
    return CVMDKDisk::openAny(localFileSystem(), pathToURI(path), access, passwordOf(password));
}

// A Python object's memory, contiguous, held for the duration of a call.
class CBufferView {
public:
    CBufferView(py::handle object, bool writable)
    {
        if (PyObject_GetBuffer(object.ptr(), &view, writable ? PyBUF_WRITABLE : PyBUF_SIMPLE) != 0)
            throw py::error_already_set();
    }
    ~CBufferView() { PyBuffer_Release(&view); }
    CBufferView(const CBufferView&) = delete;
    CBufferView& operator=(const CBufferView&) = delete;
    void* data() const { return view.buf; }
    long long size() const { return static_cast<long long>(view.len); }

private:
    Py_buffer view;
};

long long readInto(kordpy::CPyDisk& disk, py::handle buffer)
{
    CBufferView view(buffer, true);
    py::gil_scoped_release unlocked;
    return disk.readInto(view.data(), view.size());
}

// read(n) fills a new bytes object in place; n < 0 reads to the end.
py::bytes readBytes(kordpy::CPyDisk& disk, long long bytes)
{
    const long long left = std::max(0LL, disk.getSize() - disk.tell());
    const long long wanted = bytes < 0 ? left : std::min(bytes, left);
    py::bytes result = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(wanted)));
    if (!result) throw py::error_already_set();
    long long got;
    {
        py::gil_scoped_release unlocked;
        got = disk.readInto(PyBytes_AS_STRING(result.ptr()), wanted);
    }
    // Another thread moved the position meanwhile.
    if (got < wanted) return py::bytes(PyBytes_AS_STRING(result.ptr()), static_cast<size_t>(got));
    return result;
}

long long writeBytes(kordpy::CPyDisk& disk, py::handle data)
{
    CBufferView view(data, false);
    py::gil_scoped_release unlocked;
    disk.write(view.data(), view.size());
    return view.size();
}

std::unique_ptr<kordpy::CPyDisk> openDisk(const std::string& path, bool writable, const std::optional<std::string>& password)
{
    py::gil_scoped_release unlocked;
    int access = writable ? zu::IIOStream::accessReadWrite : zu::IIOStream::accessRead;
    return std::make_unique<kordpy::CPyDisk>(openAny(path, access, password));
}

struct CCreateArgs {
    std::string path;
    std::optional<long long> size;
    std::optional<std::string> type;
    std::optional<std::string> parent;
    std::optional<std::string> password;
    std::optional<long long> grainSectors;
    std::string adapter;
    bool onDemand;
};

// A delta disk defaults to the type that matches its parent's compression.
std::unique_ptr<kordpy::CPyDisk> createDisk(const CCreateArgs& args)
{
    py::gil_scoped_release unlocked;
    CVMDKDisk::CCreateParams params;
    params.password = passwordOf(args.password);
    params.adapterType = zu::String(args.adapter);
    params.createExtentFilesOnDemand = args.onDemand;
    if (args.grainSectors) params.grainSizeSectors = *args.grainSectors;
    if (args.size) params.capacitySectors = (*args.size + 511) / 512;
    if (args.parent) {
        zu::P<CVMDKDisk> parent = openAny(*args.parent, zu::IIOStream::accessRead, args.password);
        params.parentURI = parent->getMainURI();
        params.createType = parent->getCompressed() ? "streamOptimized" : "monolithicSparse";
    }
    if (args.type) params.createType = zu::String(*args.type);
    return std::make_unique<kordpy::CPyDisk>(CVMDKDisk::create(localFileSystem(), pathToURI(args.path), params));
}

std::string infoJson(const std::string& path, const std::optional<std::string>& password)
{
    py::gil_scoped_release unlocked;
    return kordinfo::diskInfoJson(openAny(path, zu::IIOStream::accessRead, password)).dump();
}

// kord.Error: an OSError whose errno stands for the failure, with the
// library's code, source (the error's domain) and properties.
void raiseError(py::handle type, const zu::CError& error)
{
    py::object instance = type(py::str(error.toString().toUTF8()));
    instance.attr("errno") = zu::errnoOf(error);
    instance.attr("code") = error.getCode();
    instance.attr("source") = error.getDomain().toUTF8();
    py::dict props;
    for (const auto& prop : error.getProps()) props[py::str(prop.first.toUTF8())] = prop.second.toUTF8();
    instance.attr("props") = props;
    PyErr_SetObject(type.ptr(), instance.ptr());
}

} // namespace

PYBIND11_MODULE(_kord, module)
{
    module.doc() = "The native part of kord; use the kord package.";
    module.attr("__version__") = KORD_VERSION;

    static py::exception<zu::CError> errorType(module, "Error", PyExc_OSError);
    errorType.attr("__module__") = "kord";
    errorType.doc() = "A failure of kord: str() gives the message with its properties; code, source, props "
                      "and errno give the details.";
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const zu::CError& error) {
            raiseError(errorType, error);
        }
    });

    py::class_<kordpy::CPyDisk>(module, "NativeDisk")
        .def_property_readonly("size", &kordpy::CPyDisk::getSize)
        .def_property_readonly("writable", &kordpy::CPyDisk::isWritable)
        .def_property_readonly("closed", &kordpy::CPyDisk::isClosed)
        .def("tell", &kordpy::CPyDisk::tell)
        .def("seek", &kordpy::CPyDisk::seek)
        .def("readinto", &readInto)
        .def("read", &readBytes)
        .def("write", &writeBytes)
        .def("flush", &kordpy::CPyDisk::flush, py::call_guard<py::gil_scoped_release>())
        .def("close", &kordpy::CPyDisk::close, py::call_guard<py::gil_scoped_release>());

    module.def("open", &openDisk, py::arg("path"), py::arg("writable"), py::arg("password"));
    module.def(
        "create",
        [](const std::string& path, std::optional<long long> size, std::optional<std::string> type,
           std::optional<std::string> parent, std::optional<std::string> password, std::optional<long long> grainSectors,
           const std::string& adapter, bool onDemand) {
            return createDisk(CCreateArgs{path, size, type, parent, password, grainSectors, adapter, onDemand});
        },
        py::arg("path"), py::arg("size"), py::arg("type"), py::arg("parent"), py::arg("password"),
        py::arg("grain_sectors"), py::arg("adapter"), py::arg("on_demand"));
    module.def("info_json", &infoJson, py::arg("path"), py::arg("password"));
}
