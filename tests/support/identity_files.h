// The files of an agent's identity in a directory of their own, with contents that only a fake library takes.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

class identity_files
{
public:
	identity_files()
	{
		char name[] = "/tmp/quillet-identity-XXXXXX";
		root = mkdtemp(name);
		std::filesystem::create_directories(root / "ca");
		std::filesystem::create_directories(root / "certs");
		std::ofstream(root / "ca" / "ca.pem") << "the authority";
		std::ofstream(root / "certs" / "cert.pem") << "the certificate";
		std::ofstream(root / "certs" / "private.pem") << "the key";
	}
	~identity_files()
	{
		std::filesystem::remove_all(root);
	}
	identity_files(const identity_files &) = delete;
	identity_files &operator=(const identity_files &) = delete;

	std::string directory() const
	{
		return root / "certs";
	}

private:
	std::filesystem::path root;
};
