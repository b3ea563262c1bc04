#include "record.hpp"

#include <algorithm>
#include <iterator>

namespace decision_bounds {

namespace {

// What the module knows of `dict`, an instance dict of `cls`: the entry that holds it, or else the
// one to hold it from now on (the other one of its set than the one used last, emptied). Entries
// stay where they are: records point at them.
KnownDict& known_entry(ModuleState& state, PyObject* dict, Own cls) {
    static_assert(ModuleState::known_sets == 4);
    auto place = (reinterpret_cast<uintptr_t>(dict) * 0x9E3779B97F4A7C15ULL) >> (64 - 2);
    ModuleState::KnownSet& set = state.known[static_cast<int>(cls)][place];
    unsigned long long version = cpython::dict_version(dict);
    for (unsigned char way = 0; way < 2; ++way) {
        if (set.ways[way].dict == dict && set.ways[way].version == version) {
            set.recent = way;
            return set.ways[way];
        }
    }
    set.recent = static_cast<unsigned char>(1 - set.recent);
    KnownDict& known = set.ways[set.recent];
    // Only the fields marked read are ever looked at: the rest may keep what they held.
    known.dict = dict;
    known.version = version;
    known.cls = cls;
    known.keys = KnownDict::Keys::unknown;
    known.read = 0;
    return known;
}

}  // namespace

int slotted_fields(ModuleState& state, Own cls) {
    OwnClass& own = state.own[static_cast<int>(cls)];
    if (!state.standard.values_laid_out || own.type == nullptr) {
        return 0;
    }
    const cpython::SharedKeys* keys = cpython::shared_keys(own.type);
    if (keys == nullptr || keys->kind != cpython::split_keys) {
        return 0;
    }
    // Keys are only ever added: while there are as many as when last counted, the count stands.
    if (keys != own.keys || keys->entries != own.keys_seen) {
        const std::span<const Name> fields = fields::of_class[static_cast<size_t>(cls)];
        int slotted = 0;
        while (slotted < std::ssize(fields) && slotted < keys->entries &&
               cpython::shared_key(keys, slotted) == name(state, fields[slotted])) {
            ++slotted;
        }
        own.keys = keys;
        own.keys_seen = keys->entries;
        own.slotted = slotted;
    }
    return own.slotted;
}

bool values_are_laid_out(ModuleState& state, Own cls) {
    // A new instance of one of the module's classes, before anything has made one, given the
    // class's first two fields in their order: what its first instance does anyway.
    PyTypeObject* type = state.own[static_cast<int>(cls)].type;
    const std::span<const Name> fields = fields::of_class[static_cast<size_t>(cls)];
    if (!PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT) || !PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE) ||
        fields.size() < 2) {
        return false;
    }
    Ref object = own(PyBaseObject_Type.tp_new(type, state.standard.empty_tuple, nullptr));
    PyObject* word = cpython::dict_or_values(object.get());
    PyObject** values = cpython::values_of(word);
    const cpython::SharedKeys* keys = cpython::shared_keys(type);
    if (values == nullptr || keys == nullptr || keys->kind != cpython::split_keys || keys->entries != 0) {
        return false;
    }
    PyObject* first = name(state, fields[0]);
    PyObject* second = name(state, fields[1]);
    Ref one = integer(1001);
    Ref two = real(2.5);
    Ref three = integer(1003);
    setattr(object.get(), first, one.get());
    setattr(object.get(), second, two.get());
    if (cpython::dict_or_values(object.get()) != word || keys->entries != 2 || cpython::shared_key(keys, 0) != first ||
        cpython::shared_key(keys, 1) != second || values[0] != one.get() || values[1] != two.get()) {
        return false;
    }
    // A value written in its slot is what Python reads, and what the dict made from the values holds.
    values[0] = Py_NewRef(three.get());
    Py_DECREF(one.get());
    if (getattr(object.get(), first).get() != three.get()) {
        return false;
    }
    Ref dict = own(PyObject_GenericGetDict(object.get(), nullptr));
    return cpython::values_of(cpython::dict_or_values(object.get())) == nullptr && PyDict_GET_SIZE(dict.get()) == 2 &&
           PyDict_GetItemWithError(dict.get(), first) == three.get() &&
           PyDict_GetItemWithError(dict.get(), second) == two.get();
}

void Record::load() {
    dict_ = Ref();
    values_ = nullptr;
    slotted_ = 0;
    ModuleState& state = state_of(fn_);
    const OwnClass& own = state.own[static_cast<int>(cls_)];
    PyTypeObject* type = Py_TYPE(object_);
    if (type != own.type || own.version == 0 || type->tp_version_tag != own.version) {
        return;
    }
    if (!PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT)) {
        return;
    }
    if (PyObject* word = cpython::dict_or_values(object_); cpython::values_of(word) != nullptr &&
                                                           state.standard.values_laid_out &&
                                                           cpython::shared_keys(type) != nullptr) {
        type_ = type;
        class_version_ = own.version;
        word_ = word;
        values_ = cpython::values_of(word);
        slotted_ = slotted_fields(state, cls_);
        return;
    }
    PyObject** slot = cpython::dict_slot(object_);
    if (slot == nullptr || *slot == nullptr || !PyDict_CheckExact(*slot)) {
        return;
    }
    type_ = type;
    class_version_ = own.version;
    slot_ = slot;
    PyObject* dict = *slot;
    dict_ = Ref::borrow(dict);
    known_ = &known_entry(state, dict, cls_);
}

PyObject* Record::field_at_place(int place) {
    if ((known_->read >> place & 1) != 0) {
        return known_->fields[place];
    }
    // The entry at the field's place in the dict's order, if it is the field's (its interned name):
    // reading it runs no code.
    Py_ssize_t position = place;
    PyObject* key;
    PyObject* value;
    if (PyDict_Next(dict_.get(), &position, &key, &value) &&
        key == name(fn_, fields::of_class[static_cast<size_t>(cls_)][place])) {
        known_->fields[place] = value;
        known_->numbers[place] = Number::of(value);
        known_->read |= static_cast<unsigned short>(1U << place);
        return value;
    }
    // Not there: only reading all of the dict tells whether it is elsewhere.
    return nullptr;
}

void Record::read_all() {
    const std::span<const Name> fields = fields::of_class[static_cast<size_t>(cls_)];
    const auto count = static_cast<int>(fields.size());
    Keys keys = Keys::fields_only;
    std::fill_n(known_->fields, count, nullptr);
    known_->read = static_cast<unsigned short>((1U << count) - 1);
    Py_ssize_t position = 0;
    PyObject* key;
    PyObject* value;
    for (int index = 0; PyDict_Next(dict_.get(), &position, &key, &value); ++index) {
        int field = index < count && key == name(fn_, fields[index]) ? index : -1;
        for (int i = 0; field < 0 && i < count; ++i) {
            field = key == name(fn_, fields[i]) ? i : -1;
        }
        if (field >= 0) {
            known_->fields[field] = value;
            known_->numbers[field] = Number::of(value);
        } else {
            keys = Keys::others;
        }
    }
    known_->keys = keys;
}

inline bool Record::knows(int place) const {
    return place >= 0 && current() && (known_->read >> place & 1) != 0 && known_->fields[place] != nullptr;
}

inline void Record::write_known(int place, Name field, const Value& value) {
    // A field whose old value the module knows, in a dict whose keys are all exact `str`. With the
    // old value held through it (unless freeing it runs nothing anyway: an exact number, None), the
    // write runs no code, so what the module knew still holds.
    PyObject* object = value.get();
    PyObject* before = known_->fields[place];
    Ref old = PyFloat_CheckExact(before) || PyLong_CheckExact(before) || before == Py_None ? Ref() : Ref::borrow(before);
    check(PyDict_SetItem(dict_.get(), name(fn_, field), object));
    known_->fields[place] = object;
    known_->numbers[place] = value.number();
    known_->version = cpython::dict_version(dict_.get());
    // `old` goes now; what freeing it runs, the next use notices
}

Value Record::get(Name field) {
    int place = place_of(cls_, field);
    if (slotted(place) && in_values()) {
        if (PyObject* value = values_[place]) {
            return Value::borrow(value);
        }
    } else if (knows(place)) {
        return Value::known(known_->fields[place], known_->numbers[place]);
    }
    return get_slowly(field);
}

void Record::set(Name field, const Value& value) {
    int place = place_of(cls_, field);
    if (slotted(place)) {
        PyObject* object = value.get();
        if (in_values() && values_[place] != nullptr) {
            cpython::store_in_slot(values_, place, object);  // what that frees, the next use notices
            return;
        }
    } else if (knows(place) && quiet_keys()) {
        write_known(place, field, value);
        return;
    }
    set_slowly(field, value);
}

Value Record::get_slowly(Name field) {
    if (!current() && !in_values()) {
        load();
        // What an earlier record of the object read of it, as it still is.
        if (int place = place_of(cls_, field); knows(place)) {
            return Value::known(known_->fields[place], known_->numbers[place]);
        }
    }
    PyObject* key = name(fn_, field);
    if (values_ != nullptr) {
        if (int place = place_of(cls_, field); slotted(place) && values_[place] != nullptr) {
            return Value::borrow(values_[place]);
        }
    } else if (dict_) {
        int place = place_of(cls_, field);
        if (place >= 0) {
            if (PyObject* value = field_at_place(place)) {
                return Value::borrow(value);
            }
        }
        // Elsewhere in the dict, or absent: looked up (which may run code), and owned at once.
        if (place < 0 || known_->keys != Keys::fields_only) {
            PyObject* value = PyDict_GetItemWithError(dict_.get(), key);
            if (value != nullptr) {
                return Value::borrow(value);
            }
            if (PyErr_Occurred()) {
                raise_current();
            }
        }
    }
    // Not an attribute of its own: the class's, or the `AttributeError`.
    return Value::own(getattr(object_, key));
}

void Record::set_slowly(Name field, const Value& value) {
    if (!current() && !in_values()) {
        load();
        if (int place = place_of(cls_, field); knows(place) && quiet_keys()) {
            write_known(place, field, value);
            return;
        }
    }
    PyObject* object = value.get();
    PyObject* key = name(fn_, field);
    if (values_ != nullptr) {
        // `value.get()` made no object that could run code: the values are still the object's.
        if (int place = place_of(cls_, field); slotted(place) && values_[place] != nullptr) {
            cpython::store_in_slot(values_, place, object);  // what that frees, the next use notices
            return;
        }
    }
    if (!dict_) {
        // A field not set yet, or without a slot of its own: stored as Python stores it, in the
        // inline values while the object has them.
        setattr(object_, key, object);
        return;
    }
    int place = place_of(cls_, field);
    PyObject* before = place < 0 ? nullptr : field_at_place(place);
    // A dict whose keys are all exact `str` runs no code for a lookup, and letting go of the old
    // value runs none when it is an exact int or float, or is held through the write: then what
    // the module knew of the dict still holds afterwards, with this field new.
    bool plain = before != nullptr && (known_->keys == Keys::fields_only || cpython::is_split(dict_.get()));
    Ref old;
    if (plain && !PyFloat_CheckExact(before) && !PyLong_CheckExact(before) && !cpython::is_immortal(before)) {
        old = Ref::borrow(before);
    }
    KnownDict* known = known_;
    check(PyDict_SetItem(dict_.get(), key, object));
    if (plain) {
        known->fields[place] = object;
        known->numbers[place] = Number::of(object);
        known->version = cpython::dict_version(dict_.get());
    } else {
        known->dict = nullptr;  // read again at the next use
    }
    // `old` goes now; what freeing it runs, the next use notices.
}

bool Record::finds_own(Name method) {
    if (!current() && !in_values()) {
        load();
    }
    if (values_ != nullptr) {
        // Keys are only ever added: while there are no more than the fields in their slots, none of
        // them is a method's name. Otherwise the method is the object's own attribute when its key
        // is there and the object's slot for it holds a value.
        const cpython::SharedKeys* keys = cpython::shared_keys(type_);
        if (keys->entries <= slotted_) {
            return true;
        }
        Py_ssize_t slot = cpython::slot_of(keys, name(fn_, method), -1);
        return slot < 0 || values_[slot] == nullptr;
    }
    if (!dict_) {
        return false;
    }
    if (known_->keys == Keys::unknown) {
        read_all();
    }
    if (known_->keys == Keys::fields_only) {
        return true;
    }
    return check(PyDict_Contains(dict_.get(), name(fn_, method))) == 0;
}

Method::Method(FunctionObject* fn, const Value& object, Own cls, Name method)
    : fn_(fn), object_(object.ref()), cls_(cls), method_(method) {
    record_.emplace(fn, object_.get(), cls);
    if (!record_->finds_own(method)) {
        record_.reset();
        bound_ = getattr(object_.get(), name(fn, method));
    }
}

Method::Method(Record& self, Name method) : fn_(self.fn()), cls_(self.cls()), method_(method) {
    if (self.finds_own(method)) {
        self_ = &self;
    } else {
        bound_ = getattr(self.object(), name(fn_, method));
    }
}

Method::Method(Method& earlier, const Value& object, Name method)
    : fn_(earlier.fn_), cls_(earlier.cls_), method_(method) {
    Record* same = earlier.self_ != nullptr ? earlier.self_ : earlier.record_ ? &*earlier.record_ : nullptr;
    if (same != nullptr && same->object() == object.get() && same->finds_own(method)) {
        self_ = same;
        return;
    }
    object_ = object.ref();
    record_.emplace(fn_, object_.get(), cls_);
    if (!record_->finds_own(method)) {
        record_.reset();
        bound_ = getattr(object_.get(), name(fn_, method));
    }
}

void add_own_traceback(FunctionObject* fn, Own cls, Name method) {
    // The class's function of that name: looked up only now that an exception needs its entry.
    PyTypeObject* type = state_of(fn).own[static_cast<int>(cls)].type;
    PyObject* function = type != nullptr ? cpython::type_lookup(type, name(fn, method)) : nullptr;
    if (function != nullptr && is_function(function, state_of(fn).function_type)) {
        add_traceback(reinterpret_cast<FunctionObject*>(function));
    }
}

}  // namespace decision_bounds
