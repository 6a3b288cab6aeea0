#pragma once

// Conversions between the library's small value types and Python tuples:
//   Vector            <-> (x, y, z)
//   Box               <-> ((min x, min y, min z), (max x, max y, max z)), both corners inclusive
//   ValueRange<double> <-> (min, max)
// Any sequence of the right length converts; Python receives tuples.

#include <nuvek/core/Box.h>
#include <nuvek/core/ValueRange.h>
#include <nuvek/core/Vector.h>

#include <pybind11/pybind11.h>

namespace pybind11::detail {

inline bool loadIntegers(handle source, long long* values, std::size_t count, bool convert)
{
    if (!isinstance<sequence>(source) || isinstance<str>(source))
        return false;
    auto const items = reinterpret_borrow<sequence>(source);
    if (items.size() != count)
        return false;
    for (std::size_t i = 0; i < count; ++i)
    {
        make_caster<long long> item;
        if (!item.load(items[i], convert))
            return false;
        values[i] = cast_op<long long>(item);
    }
    return true;
}

template <>
struct type_caster<Nuvek::Vector>
{
    PYBIND11_TYPE_CASTER(Nuvek::Vector, const_name("tuple[int, int, int]"));

    bool load(handle source, bool convert)
    {
        long long values[3];
        if (!loadIntegers(source, values, 3, convert))
            return false;
        value = Nuvek::Vector(values[0], values[1], values[2]);
        return true;
    }

    static handle cast(Nuvek::Vector const& vector, return_value_policy, handle)
    {
        return make_tuple(vector.x, vector.y, vector.z).release();
    }
};

template <>
struct type_caster<Nuvek::Box>
{
    PYBIND11_TYPE_CASTER(Nuvek::Box, const_name("tuple[tuple[int, int, int], tuple[int, int, int]]"));

    bool load(handle source, bool convert)
    {
        if (!isinstance<sequence>(source) || isinstance<str>(source))
            return false;
        auto const corners = reinterpret_borrow<sequence>(source);
        if (corners.size() != 2)
            return false;
        make_caster<Nuvek::Vector> min;
        make_caster<Nuvek::Vector> max;
        if (!min.load(corners[0], convert) || !max.load(corners[1], convert))
            return false;
        value = Nuvek::Box(cast_op<Nuvek::Vector>(min), cast_op<Nuvek::Vector>(max));
        return true;
    }

    static handle cast(Nuvek::Box const& box, return_value_policy policy, handle parent)
    {
        object min = reinterpret_steal<object>(make_caster<Nuvek::Vector>::cast(box.min, policy, parent));
        object max = reinterpret_steal<object>(make_caster<Nuvek::Vector>::cast(box.max, policy, parent));
        return make_tuple(min, max).release();
    }
};

template <>
struct type_caster<Nuvek::ValueRange<double>>
{
    PYBIND11_TYPE_CASTER(Nuvek::ValueRange<double>, const_name("tuple[float, float]"));

    bool load(handle source, bool convert)
    {
        if (!isinstance<sequence>(source) || isinstance<str>(source))
            return false;
        auto const items = reinterpret_borrow<sequence>(source);
        if (items.size() != 2)
            return false;
        make_caster<double> min;
        make_caster<double> max;
        if (!min.load(items[0], convert) || !max.load(items[1], convert))
            return false;
        value = Nuvek::ValueRange<double>(cast_op<double>(min), cast_op<double>(max));
        return true;
    }

    static handle cast(Nuvek::ValueRange<double> const& range, return_value_policy, handle)
    {
        return make_tuple(range.min, range.max).release();
    }
};

} // namespace pybind11::detail
