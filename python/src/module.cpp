// _velseq: the Python binding, on the runtime-typed table layer
// (velseq/table.hpp).
//
// Python sees a Database, Transactions (one connection each, bound to the
// thread that began them), Objects and Sequences (handles.h).  Tables,
// fields, types and orders are the host's catalogue, so an image crosses
// between this package, the velseq program and C++ programs; types are
// dispatched inside the table layer, and values cross as NumPy arrays
// (convert.h).  The GIL is released around every pass over the data.
#include "handles.h"

namespace py = pybind11;

namespace vpy {

namespace {

// An instance of the exception class `type` for e, with its code and name.
py::object exception_of(const py::object &type, const error &e) {
    py::object exc = type(e.what());
    exc.attr("code") = e.code();
    exc.attr("name") = e.name();
    return exc;
}

} // namespace

void bind_errors(py::module_ &m) {
    static py::object &error_type = *new py::object( // never released, as numpy()
        py::reinterpret_borrow<py::object>(
            py::exception<error>(m, "Error", PyExc_Exception).ptr()));
    error_type.attr("__doc__") =
        "A refused call: .code is the module's or host's code, .name its name; the data is as "
        "it was before the call.";
    // velseq.Error subclasses that are also a built-in exception, held for
    // the life of the process as error_type is.
    auto subclass = [&](const char *name, PyObject *builtin, const char *doc) -> py::object & {
        auto *t =
            new py::object(py::module_::import("builtins")
                               .attr("type")(name, py::make_tuple(error_type, py::handle(builtin)),
                                             py::dict(py::arg("__module__") = m.attr("__name__"),
                                                      py::arg("__doc__") = doc)));
        m.attr(name) = *t;
        return *t;
    };
    // Refusals of the caller's values (bad type, value, order, null, length
    // or field) are also ValueErrors, as Python code expects of them.
    static py::object &bad_input =
        subclass("BadInput", PyExc_ValueError,
                 "A velseq.Error that refuses the values of a call; also a ValueError.");
    // Arguments of Python types a call does not take: pybind11 raises a bare
    // TypeError, which the package turns into this (see __init__.py).
    static py::object &wrong_type =
        subclass("WrongType", PyExc_TypeError,
                 "A velseq.Error that refuses the Python types of a call's arguments; also a "
                 "TypeError.");
    m.def("_wrong_type", [](const std::string &message) {
        return exception_of(wrong_type, error(VEL_E_ILLEGAL_TYPE, message));
    });
    // The package's own refusals, by the name of their code.
    m.def("_refuse", [](const std::string &name, const std::string &message) {
        for (int code = 0; code < 1000; code++)
            if (name == velseq::code_name(code))
                throw error(code, message);
        throw error(VEL_E_ILLEGAL_PARAM, "no code " + name + ": " + message);
    });
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (const error &e) {
            const int c = e.code();
            const bool input = c == VEL_E_ILLEGAL_TYPE || c == VEL_E_ILLEGAL_PARAM ||
                               c == VEL_E_SEQ_OUT_OF_ORDER || c == VEL_E_SEQ_NULL_VALUE ||
                               c == VEL_E_SEQ_LENGTH_MISMATCH || c == VEL_E_HOST_WRONG_FIELD;
            const py::object &type = input ? bad_input : error_type;
            PyErr_SetObject(type.ptr(), exception_of(type, e).ptr());
        }
    });
}

} // namespace vpy

PYBIND11_MODULE(_velseq, m) {
    m.doc() = "velseq: sequences of scalars in database objects, from NumPy and pandas";
    vpy::bind_errors(m);
    vpy::bind_database(m);
    vpy::bind_transaction(m);
    vpy::bind_object(m);
    py::class_<vpy::Sequence> seq = vpy::bind_sequence(m);
    vpy::bind_aggregates(seq);
    vpy::bind_arrow(m);
    m.attr("kernels") = [] {
        py::list names;
        for (const velseq::table::kernel_info &k : velseq::table::kernels())
            names.append(k.name);
        return names;
    }();
}
