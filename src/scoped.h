// scoped<T, fn>: a pointer that fn releases when its owner leaves the block, unless release() handed it over.
#pragma once

#include <memory>

template <auto fn>
struct scoped_deleter {
	template <typename T>
	void operator()(T *pointer) const
	{
		fn(pointer);
	}
};

template <typename T, auto fn>
using scoped = std::unique_ptr<T, scoped_deleter<fn>>;
