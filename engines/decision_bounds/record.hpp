// An object of one of the module's classes as the Python code of its methods reads and writes it.
//
// `get(field)` is `self.field`, `set(field, value)` is `self.field = value`, each a read or a write
// of its own, in the order the code makes them. While the object is exactly of its class as
// start-up left it, with its own attribute dict, no descriptor, override or `__getattr__` can stand
// between an attribute and that dict, so fields are read and written there; otherwise through the
// ordinary attribute calls. Whatever runs between two uses (a callback, a lock wait that lets other
// threads in, a reply's property, a key's `__eq__` in a lookup) may change the object's class or
// replace its dict, so every use checks that first; and every value read is owned from the moment
// it is read.
#pragma once

#include <utility>

#include "names.hpp"

namespace decision_bounds {

// Adds the traceback entry of the module's method `cls.<method>` to the exception being raised, for
// a body that runs as that method.
void add_own_traceback(FunctionObject* fn, Own cls, Name method);

class Record {
public:
    // `object` is borrowed: the caller keeps it alive (it is an argument of the call, or a value
    // the caller holds).
    Record(FunctionObject* fn, PyObject* object, Own cls) : fn_(fn), object_(object), cls_(cls) {}
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    FunctionObject* fn() const noexcept { return fn_; }
    PyObject* object() const noexcept { return object_; }
    Own cls() const noexcept { return cls_; }

    Value get(Name field);
    void set(Name field, const Value& value);

    // Whether `self.<method>` finds the class's own method (the object is standard and nothing of
    // that name is in its dict), so that the method's body may run on this record directly.
    bool finds_own(Name method);
    // The attribute dict while the object is standard, else null.
    PyObject* standard_dict() { return standard() ? dict_.get() : nullptr; }

private:
    bool standard() {
        if (dict_ && *slot_ == dict_.get() && is_own(state_of(fn_), object_, cls_)) {
            return true;
        }
        return reload();
    }
    bool reload();

    FunctionObject* fn_;
    PyObject* object_;
    Own cls_;
    PyObject** slot_ = nullptr;  // where the object keeps its dict
    Ref dict_;  // the dict while the object is standard; kept alive whatever replaces it
};

// The method `method` of the module's class `cls`, looked up on an object as `object.method` is,
// before the call's arguments are evaluated: the class's own method when the object is exactly of
// that class, unchanged, and nothing of that name is in its dict (then its body runs directly on
// the object's record), else whatever the attribute gives, bound.
class Method {
public:
    Method(FunctionObject* fn, const Value& object, Own cls, Name method);
    // `self.method` on a record.
    Method(Record& self, Name method);

    // Calls it: `impl(record, args...)` for the class's own method, the attribute otherwise.
    template <auto impl, typename... Args>
    Value call(const Args&... args) {
        if (bound_) {
            return Value::own(decision_bounds::call(bound_.get(), args.get()...));
        }
        if (self_ != nullptr) {
            return run_own([&] { return impl(*self_, args...); });
        }
        Record self(fn_, object_.get(), cls_);
        return run_own([&] { return impl(self, args...); });
    }

private:
    template <typename Body>
    Value run_own(Body&& body) {
        try {
            return body();
        } catch (const PythonError&) {
            add_own_traceback(fn_, cls_, method_);
            throw;
        }
    }
    FunctionObject* fn_;
    Record* self_ = nullptr;  // the caller's record, for a method of its own object
    Ref object_;              // otherwise the object
    Own cls_;
    Name method_;
    Ref bound_;  // the attribute, when the class's own method is not the one found
};

// `item(dict, key)` tried first at `place` in the dict's order (where the class's code stores the
// field); borrowed, or null when absent. What the lookup raises passes on.
PyObject* item_at(PyObject* dict, Py_ssize_t place, PyObject* key);

}  // namespace decision_bounds
