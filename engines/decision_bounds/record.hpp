// An object of one of the module's classes as the Python code of its methods reads and writes it.
//
// `get(field)` is `self.field`, `set(field, value)` is `self.field = value`, in the order the code
// makes them, and every value read is owned from the moment it is read. While the object is exactly
// of its class as start-up left it, no descriptor, override or `__getattr__` can stand between an
// attribute and the object's own attributes, so fields are read and written where the object keeps
// them; otherwise through the ordinary attribute calls.
//
// An object keeps its attributes in one of two places. Until something asks for its dict, in its
// inline values: a slot per key of its class, read and written in place as Python's own attribute
// loads and stores do, each use checking that the object still has them (asking for the dict, from
// anywhere, ends them for good). Then in its attribute dict: a field is read at the place where the
// class's code stores it when first asked for, and what was read (the object, and the number it is)
// is trusted for as long as the object is still of its class, with the same dict, and the dict's
// version is unchanged: whatever runs between two uses (a callback, a lock wait that lets other
// threads in, a reply's property, a key's `__eq__`) and changes the object shows in one of those, and
// the record reads again. What was read is kept in the module state (`KnownDict`), so the next record
// of the same object starts from it. A write keeps it current only when the write cannot have run
// code: every key of the dict is an exact `str` (so no lookup calls `__eq__`) and the old value is
// held through the write (so no finalizer runs inside it).
#pragma once

#include <optional>
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

    // Whether a write of a field whose old value is an exact number runs no code now: the object is
    // standard, and keeps its attributes in inline values, or in a dict that the module knows as it
    // is and whose keys are all exact `str`.
    bool writes_quietly() const { return in_values() || (current() && quiet_keys()); }

private:
    using Keys = KnownDict::Keys;

    // Whether the object is standard and still keeps its attributes in the inline values read.
    bool in_values() const {
        return values_ != nullptr && cpython::dict_or_values(object_) == word_ && Py_TYPE(object_) == type_ &&
               type_->tp_version_tag == class_version_;
    }
    // Whether `place` is a field's slot in the inline values (-1, no field, is none).
    bool slotted(int place) const { return static_cast<unsigned>(place) < static_cast<unsigned>(slotted_); }

    // Whether every key of the dict, current, is an exact `str`.
    bool quiet_keys() const { return known_->keys == Keys::fields_only || cpython::is_split(dict_.get()); }

    // Whether what the module read of the dict still holds (never, while the object is not
    // standard).
    bool current() const {
        // A version is never given twice, so the entry's version being the dict's says it is this
        // dict's entry too.
        return dict_ && *slot_ == dict_.get() && Py_TYPE(object_) == type_ && type_->tp_version_tag == class_version_ &&
               known_->version == cpython::dict_version(dict_.get());
    }
    // Reads the object afresh: whether it is standard, and then where its dict is and what the
    // module knows of it. Fields are read when first asked for.
    void load();
    // A field read where the class's code stores it, or looked up. Apart from `get` and `set`, so
    // that their usual case stays a few instructions with no registers to save.
    [[gnu::noinline]] Value get_slowly(Name field);
    // Any other write.
    [[gnu::noinline]] void set_slowly(Name field, const Value& value);
    // Whether the module knows the field at `place` (-1: none) as the object holds it now.
    bool knows(int place) const;
    // `set` of a field that the module knows, in a dict that it writes quietly.
    void write_known(int place, Name field, const Value& value);
    // What `field` holds now, borrowed, or null: read where the class's code stores it.
    PyObject* field_at_place(int place);
    // Every entry of the dict: which are the class's fields, and whether there is anything else.
    [[gnu::cold]] void read_all();

    FunctionObject* fn_;
    PyObject* object_;
    Own cls_;
    PyTypeObject* type_ = nullptr;
    unsigned int class_version_ = 0;
    PyObject** slot_ = nullptr;  // where the object keeps its dict
    PyObject* word_ = nullptr;     // while it keeps inline values: the word that points to them
    PyObject** values_ = nullptr;  // and those values
    int slotted_ = 0;              // how many fields have their slot at their place, the first ones
    Ref dict_;                   // that dict while the object is standard, kept alive whatever replaces it
    KnownDict* known_ = nullptr;  // what the module knows of it
};

// How many of the first keys that the instances of the module's class `cls` share are its fields,
// each at its place (0 while it has none, or inline values cannot be read so).
int slotted_fields(ModuleState& state, Own cls);

// Whether instances keep their inline values as `cpython.hpp` says: checked once, at start-up, on
// an instance of the module's class `cls` made before any other.
bool values_are_laid_out(ModuleState& state, Own cls);

// The method `method` of the module's class `cls`, looked up on an object as `object.method` is,
// before the call's arguments are evaluated: the class's own method when the object is exactly of
// that class, unchanged, and nothing of that name is in its dict (then its body runs directly on
// the object's record), else whatever the attribute gives, bound.
class Method {
public:
    Method(FunctionObject* fn, const Value& object, Own cls, Name method);
    // `self.method` on a record.
    Method(Record& self, Name method);
    // `object.method` where `earlier` looked up another method: on the same record when `object` is
    // the same object.
    Method(Method& earlier, const Value& object, Name method);

    // Calls it: `impl(record, args...)` for the class's own method, the attribute otherwise.
    template <auto impl, typename... Args>
    Value call(const Args&... args) {
        if (bound_) {
            return Value::own(decision_bounds::call(bound_.get(), args.get()...));
        }
        Record& self = self_ != nullptr ? *self_ : *record_;
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
    Record* self_ = nullptr;       // the caller's record, for a method of its own object
    Ref object_;                   // otherwise the object
    std::optional<Record> record_;  // and its record, when its class's method runs on it
    Own cls_;
    Name method_;
    Ref bound_;  // the attribute, when the class's own method is not the one found
};

}  // namespace decision_bounds
