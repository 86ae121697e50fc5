// A folder of identities for the tests of the commands.
#pragma once

#include "commands.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "authority.h"
#include "certificates.h"
#include "revocations.h"
#include "rules.h"
#include "store.h"

// A folder of its own for each test, gone afterwards.
class pki_commands : public testing::Test
{
protected:
	void SetUp() override
	{
		char name[] = "/tmp/quillet_pki_XXXXXX";
		ASSERT_NE(mkdtemp(name), nullptr);
		root = name;
		directory = root + "/pki";
		std::ofstream(root + "/plugin.so") << "plugin";
	}

	void TearDown() override
	{
		std::filesystem::remove_all(root);
	}

	bool init(bool force = false)
	{
		init_options options;
		options.force = force;
		return pki_init(directory, options, out, error);
	}

	bool node(const std::string &name, const std::string &role = "agent", bool force = false)
	{
		node_options options;
		options.name = name;
		options.role = role;
		options.force = force;
		return pki_node(directory, options, out, error);
	}

	bool broker(bool force = false)
	{
		broker_options options;
		options.plugin = root + "/plugin.so";
		options.force = force;
		return pki_broker(directory, options, out, error);
	}

	bool renew(const std::string &name, bool keep_key = false)
	{
		renew_options options;
		options.name = name;
		options.broker = name.empty();
		options.keep_key = keep_key;
		return pki_renew(directory, options, out, error);
	}

	bool revoke(const std::string &name, bool old_only = false)
	{
		return pki_revoke(directory, {name, old_only}, out, error);
	}

	bool bridge(const std::string &name, const std::vector<std::string> &units, bool force = false)
	{
		bridge_options options;
		options.name = name;
		options.units = units;
		options.force = force;
		return pki_bridge(directory, options, out, error);
	}

	// Whether the certificate in this file is on the list of revoked ones.
	bool revoked(const std::string &path)
	{
		identity held;
		revocation_list list;
		EXPECT_TRUE(parse_identity("", text(path), held, error)) << error;
		EXPECT_TRUE(load_revocations(directory, list, error)) << error;
		return is_revoked(list, held.certificate.get());
	}

	// Whether the broker's plugin takes the rules that are in place, and lets the one send to the other by them.
	bool lets(const std::string &sender, const std::string &destination)
	{
		send_rules rules;
		std::string why;
		EXPECT_TRUE(rules_parse(text("broker/rules"), &rules, &why)) << why;
		return rules_allow(rules, sender, "", destination, false);
	}

	std::string text(const std::string &path, size_t largest = 1024 * 1024)
	{
		std::string read;
		EXPECT_TRUE(read_file(directory + "/" + path, read, error, largest)) << error;
		return read;
	}

	unsigned mode(const std::string &path)
	{
		struct stat facts = {};
		EXPECT_EQ(stat((directory + "/" + path).c_str(), &facts), 0) << path;
		return facts.st_mode & 07777;
	}

	std::string root;
	std::string directory;
	std::ostringstream out;
	std::string error;
};
