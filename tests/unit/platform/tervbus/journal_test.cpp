#include "journal.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <fstream>

namespace
{

namespace fs = std::filesystem;

constexpr int64_t now_s = 1'700'000'000;

constexpr const char *not_its_own = " is no file of its own: remove it, the broker makes a new one";

journal_message message_of(const std::string &id, int64_t ends_s = now_s + 60)
{
	return {"movra/v1/ua/AGENT-1/TESTER-1", "application/json", id, std::string("{}\0", 3), now_s, ends_s};
}

class unsaved_journal : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string name = fs::temp_directory_path() / "journal-XXXXXX";
		folder = mkdtemp(name.data());
	}

	void TearDown() override
	{
		journal_close(&notes);
		fs::remove_all(folder);
	}

	// A broker that starts; what it is given, by id.
	std::vector<std::string> start(int64_t at_s = now_s)
	{
		journal_close(&notes);
		notes = {};
		given.clear();
		EXPECT_TRUE(journal_open(&notes, folder, at_s, &given, &why));
		std::vector<std::string> ids;
		for (const journal_message &message : given)
			ids.push_back(message.id);
		return ids;
	}

	void note(const std::string &id)
	{
		EXPECT_TRUE(journal_note(&notes, message_of(id), &why));
	}

	// As the broker saves: a new file takes the old one's place.
	void save()
	{
		std::ofstream(folder + "/mosquitto.db.new") << "saved " << ++saves;
		fs::rename(folder + "/mosquitto.db.new", folder + "/mosquitto.db");
	}

	std::string path() const
	{
		return folder + "/unsaved.journal";
	}

	using id_list = std::vector<std::string>;
	std::string folder;
	journal notes;
	std::vector<journal_message> given;
	std::string why;
	int saves = 0;
};

TEST_F(unsaved_journal, is_empty_at_the_first_start)
{
	EXPECT_EQ(start(), id_list());
}

TEST_F(unsaved_journal, gives_back_what_the_last_broker_did_not_save)
{
	start();
	save();
	note("1");
	note("2");

	EXPECT_EQ(start(), (id_list{"1", "2"}));
	EXPECT_EQ(given[0].topic, message_of("1").topic);
	EXPECT_EQ(given[0].content_type, message_of("1").content_type);
	EXPECT_EQ(given[0].payload, message_of("1").payload);
	EXPECT_EQ(given[0].ends_s, now_s + 60);
}

TEST_F(unsaved_journal, gives_back_what_came_before_any_save)
{
	start();
	note("1");
	EXPECT_EQ(start(), id_list{"1"});
}

TEST_F(unsaved_journal, gives_back_nothing_that_was_saved)
{
	start();
	note("1");
	save();
	EXPECT_EQ(start(), id_list());
}

TEST_F(unsaved_journal, gives_back_only_what_came_after_the_last_save)
{
	start();
	note("1");
	save();
	note("2");
	note("3");
	EXPECT_EQ(start(), (id_list{"2", "3"}));
}

TEST_F(unsaved_journal, stays_for_a_broker_that_is_killed_again_before_it_has_saved)
{
	start();
	note("1");
	start();
	note("2");
	EXPECT_EQ(start(), (id_list{"1", "2"}));
}

TEST_F(unsaved_journal, leaves_out_what_is_over)
{
	start();
	ASSERT_TRUE(journal_note(&notes, message_of("1", now_s + 5), &why));
	note("2");
	EXPECT_EQ(start(now_s + 5), id_list{"2"});
}

TEST_F(unsaved_journal, leaves_out_what_is_of_unknown_age_when_the_clock_has_been_set_back)
{
	start();
	note("1");
	EXPECT_EQ(start(now_s - 2), id_list{"1"}) << "a small step";
	EXPECT_EQ(start(0), id_list()) << "a clock that starts anew";
}

TEST_F(unsaved_journal, leaves_out_a_damaged_end_and_goes_on_behind_the_whole_part)
{
	start();
	note("1");
	const auto whole = fs::file_size(path());
	note("2");
	const auto end = fs::file_size(path());
	journal_close(&notes);
	const std::string copy = folder + "/copy";
	fs::copy_file(path(), copy);

	for (auto length = whole; length < end; length++) {
		SCOPED_TRACE(length);
		fs::copy_file(copy, path(), fs::copy_options::overwrite_existing);
		fs::resize_file(path(), length);
		EXPECT_EQ(start(), id_list{"1"});
		note("3");
		EXPECT_EQ(start(), (id_list{"1", "3"}));
	}
}

TEST_F(unsaved_journal, takes_a_file_of_another_kind_for_an_empty_one)
{
	std::ofstream(path()) << std::string(100, 'x');
	EXPECT_EQ(start(), id_list());
	note("1");
	EXPECT_EQ(start(), id_list{"1"});
}

TEST_F(unsaved_journal, is_for_its_owner_alone)
{
	start();
	EXPECT_EQ(fs::status(path()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(unsaved_journal, follows_no_link)
{
	fs::create_symlink(folder + "/elsewhere", path());
	EXPECT_FALSE(journal_open(&notes, folder, now_s, &given, &why));
	EXPECT_EQ(why, path() + not_its_own);
}

TEST_F(unsaved_journal, takes_no_file_that_has_another_name_as_well)
{
	std::ofstream(folder + "/other") << "precious";
	fs::create_hard_link(folder + "/other", path());

	EXPECT_FALSE(journal_open(&notes, folder, now_s, &given, &why));

	EXPECT_EQ(why, path() + not_its_own);
	EXPECT_EQ(fs::file_size(folder + "/other"), 8u);
}

TEST_F(unsaved_journal, waits_for_no_pipe)
{
	ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
	EXPECT_FALSE(journal_open(&notes, folder, now_s, &given, &why));
	EXPECT_EQ(why, path() + not_its_own);
}

TEST_F(unsaved_journal, cannot_be_opened_in_a_folder_that_is_not_there)
{
	EXPECT_FALSE(journal_open(&notes, folder + "/missing", now_s, &given, &why));
	EXPECT_EQ(why,
			folder +
					"/missing/unsaved.journal: No such file or directory: plugin_opt_persistence has to name a folder "
					"that the broker can write to");
	journal_close(&notes);
}

TEST_F(unsaved_journal, takes_no_more_than_its_limit_until_the_next_save)
{
	start();
	journal_message large = message_of("1");
	large.payload.assign(1 << 24, 'x');
	int taken = 0;
	while (taken < 100 && journal_note(&notes, large, &why))
		taken++;
	EXPECT_EQ(taken, 4); // the one that goes over it is the last
	EXPECT_EQ(why, "its 67108864 bytes are full, and the broker has not written " + folder + "/mosquitto.db meanwhile");

	save();
	note("2");
	EXPECT_EQ(start(), id_list{"2"});
}

TEST_F(unsaved_journal, says_that_a_full_disk_took_nothing)
{
	start();
	journal_close(&notes);
	notes.fd = open("/dev/full", O_RDWR);
	EXPECT_FALSE(journal_note(&notes, message_of("1"), &why));
	EXPECT_EQ(why, "No space left on device");
}

} // namespace
