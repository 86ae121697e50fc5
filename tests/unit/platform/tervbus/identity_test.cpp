// What a node's certificate says of it, through the C entry point.
#include "bus_fixture.h"

using testing::ElementsAre;

namespace
{

std::vector<std::string> addresses_of(const test_credentials &own, int *result)
{
	const test_ca ca = test_ca_new("CA");
	test_identity holder(own, ca.certificate_pem);
	tervbus_identity identity{};
	holder.fill(&identity);

	address_entry *list = nullptr;
	*result = tervbus_get_identity_data(&identity, &list, 0, 0);
	std::vector<std::string> texts;
	for (const address_entry *entry = list; entry != nullptr; entry = entry->next)
		texts.push_back(std::to_string(entry->type) + ":" +
				(entry->type == 1 ? std::to_string(entry->value.number) : entry->value.text));
	tervbus_free_address(list, 1);
	return texts;
}

} // namespace

TEST(bus_identity, has_a_unit_address_a_group_and_perhaps_a_special_address)
{
	const test_ca ca = test_ca_new("CA");
	struct row {
		test_subject subject;
		std::vector<std::string> addresses;
	};
	const row rows[] = {
			{{.common_names = {"unit"}}, {"2:unit"}},
			{{.common_names = {"unit"}, .units = {"first", "second"}}, {"2:unit", "3:first"}},
			{{.common_names = {"DM-CLIENT"}}, {"2:DM-CLIENT", "1:0"}},
			{{.common_names = {"DM-CLIENT"}, .units = {"group"}}, {"2:DM-CLIENT", "3:group", "1:0"}},
			{{.common_names = {"Gerät 7"}}, {"2:Gerät 7"}},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.subject.common_names[0]);
		int result = -1;
		EXPECT_EQ(addresses_of(test_ca_issue(ca, row.subject), &result), row.addresses);
		EXPECT_EQ(result, 0);
	}
}

TEST(bus_identity, without_a_usable_name_gives_no_addresses)
{
	const test_ca ca = test_ca_new("CA");
	const test_subject rows[] = {
			{.common_names = {}},
			{.common_names = {"one", "two"}},
			{.common_names = {"a/b"}},
			{.common_names = {std::string("a\0b", 3)}},
			{.common_names = {"unit"}, .units = {"+"}},
	};
	size_t number = 0;
	for (const test_subject &subject : rows) {
		SCOPED_TRACE(number++);
		int result = 0;
		EXPECT_TRUE(addresses_of(test_ca_issue(ca, subject), &result).empty());
		EXPECT_LT(result, 0);
	}
}

TEST(bus_identity, that_is_none_gives_no_addresses_and_leaves_the_list)
{
	tervbus_identity none{};
	address_entry *const before = reinterpret_cast<address_entry *>(&none);
	address_entry *list = before;
	EXPECT_LT(tervbus_get_identity_data(&none, &list, 0, 0), 0);
	EXPECT_LT(tervbus_get_identity_data(nullptr, &list, 0, 0), 0);
	EXPECT_EQ(list, before);
	EXPECT_LT(tervbus_get_identity_data(&none, nullptr, 0, 0), 0);
}
