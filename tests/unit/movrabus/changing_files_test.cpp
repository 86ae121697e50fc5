// Identity files that change while they are read: read() is wrapped so that the change comes at a known moment. A
// program of its own, because the failures on demand of the other tests wrap read() too.
#include "unit/movrabus/bus_fixture.h"

#include <functional>

#include <unistd.h>

using strings = std::vector<std::string>;

namespace
{

std::function<void()> before_first_read;

}

extern "C" {
ssize_t __real_read(int descriptor, void *data, size_t size);
ssize_t __wrap_read(int descriptor, void *data, size_t size);

ssize_t __wrap_read(int descriptor, void *data, size_t size)
{
	if (before_first_read)
		std::exchange(before_first_read, nullptr)();
	return __real_read(descriptor, data, size);
}
}

namespace
{

class changing_file : public bus_test
{
protected:
	strings errors_when_the_key_becomes(size_t before, size_t after)
	{
		files.write("node/private.pem", std::string(before, 'k'));
		before_first_read = [this, after] {
			files.write("node/private.pem", std::string(after, 'n'));
		};
		EXPECT_EQ(init(), nullptr);
		EXPECT_FALSE(before_first_read);
		strings errors = log.messages("ERR");
		EXPECT_EQ(errors.at(errors.size() - 3), "identity->x509.private_key is NULL");
		errors.resize(errors.size() - 3);
		return errors;
	}
};

}

TEST_F(changing_file, reports_one_that_has_shrunk)
{
	EXPECT_EQ(errors_when_the_key_becomes(3000, 1030),
			(strings{"Premature EOF reading " + files.node() +
					"/private.pem, file declared 3000 bytes, read 1030 bytes, remaining 1970 bytes"}));
}

TEST_F(changing_file, reports_one_that_became_empty)
{
	EXPECT_EQ(errors_when_the_key_becomes(5, 0),
			(strings{"Premature EOF reading " + files.node() +
					"/private.pem, file declared 5 bytes, read 0 bytes, remaining 5 bytes"}));
}

TEST_F(changing_file, refuses_one_that_has_grown_without_a_line_and_without_writing_past_its_buffer)
{
	EXPECT_EQ(errors_when_the_key_becomes(10, 900), strings());
	log.clear();
	EXPECT_EQ(errors_when_the_key_becomes(1030, 4000), strings());
}
