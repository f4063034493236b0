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

void bind_errors(py::module_ &m) {
    static py::object &error_type = *new py::object( // never released, as numpy()
        py::reinterpret_borrow<py::object>(
            py::exception<error>(m, "Error", PyExc_Exception).ptr()));
    error_type.attr("__doc__") =
        "A refused call: .code is the module's or host's code, .name its name; the data is as "
        "it was before the call.";
    // Refusals of the caller's values (bad type, value, order, null, length
    // or field) are also ValueErrors, as Python code expects of them.
    static py::object &bad_input = *new py::object(
        py::module_::import("builtins")
            .attr("type")("BadInput", py::make_tuple(error_type, py::handle(PyExc_ValueError)),
                          py::dict(py::arg("__module__") = m.attr("__name__"),
                                   py::arg("__doc__") =
                                       "A velseq.Error that refuses the values of a call; also a "
                                       "ValueError.")));
    m.attr("BadInput") = bad_input;
    // Arguments of Python types a call does not take: pybind11 raises a bare
    // TypeError, which the package turns into this (see __init__.py).
    static py::object &wrong_type = *new py::object(
        py::module_::import("builtins")
            .attr("type")("WrongType", py::make_tuple(error_type, py::handle(PyExc_TypeError)),
                          py::dict(py::arg("__module__") = m.attr("__name__"),
                                   py::arg("__doc__") =
                                       "A velseq.Error that refuses the Python types of a call's "
                                       "arguments; also a TypeError.")));
    m.attr("WrongType") = wrong_type;
    m.def("_wrong_type", [](const std::string &message) {
        const error e(VEL_E_ILLEGAL_TYPE, message);
        py::object exc = wrong_type(e.what());
        exc.attr("code") = e.code();
        exc.attr("name") = e.name();
        return exc;
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
            py::object exc = type(e.what());
            exc.attr("code") = c;
            exc.attr("name") = e.name();
            PyErr_SetObject(type.ptr(), exc.ptr());
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
    m.attr("kernels") = [] {
        py::list names;
        for (const velseq::table::kernel_info &k : velseq::table::kernels())
            names.append(k.name);
        return names;
    }();
}
