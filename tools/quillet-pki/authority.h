// The CA's side of the folder: where its files are, what it has signed, and what it has taken back.
//
//   <dir>/ca/ca.key, ca.pem     the CA
//   <dir>/ca/issued/<serial>    each certificate that it has signed, so that one can be revoked without the node's help
//   <dir>/ca/crl.pem            the list of those revoked, which the broker reads when it starts
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "revocations.h"
#include "store.h"

std::string ca_key_path(const std::string &directory);
std::string ca_certificate_path(const std::string &directory);
std::string issued_folder(const std::string &directory);
std::string revocation_path(const std::string &directory);

// Each of these returns false on failure, with the cause in error.

// A new CA, which has signed nothing yet.
bool store_ca(const std::string &directory, const identity &ca, std::string &error);
bool load_ca(const std::string &directory, identity &ca, std::string &error);

// A certificate takes about 48 bytes of it: room for 1.4 million. Those that have run out stay on it, so that a node
// once revoked is not good again for the rules and for a renewal, nor at a broker whose clock is late.
constexpr size_t largest_revocation_list = 64u << 20;

// The list as it is; an empty one when there is no file yet.
bool load_revocations(const std::string &directory, revocation_list &list, std::string &error);

// The list as it is written; none that load_revocations would not read again.
bool revocations_text(
		const revocation_list &list, std::string &text, std::string &error, size_t largest = largest_revocation_list);

bool store_revocations(const std::string &directory, const std::string &text, std::string &error);

// A list with nobody on it, in the place of what there was.
bool store_empty_revocations(const std::string &directory, const identity &ca, std::string &error);

// Writes key and certificate, the key for its owner's eyes only, and keeps a copy of the certificate with the CA.
bool store_identity(const std::string &directory, const std::string &folder, const identity &made, std::string &error);

// Reads the certificate of a PEM file.
bool load_certificate(const std::string &path, identity &held, std::string &error);

// False, with the advice in error, when the file exists and is not to be replaced.
bool refuse_overwriting(const std::string &path, bool force, const std::string &loss, std::string &error);

// The same for the certificate and for the key of the identity in this folder.
bool refuse_overwriting_identity(const std::string &folder, bool force, const std::string &loss, std::string &error);

// The broker's rules, for the nodes whose certificate is not on the list and for one that is about to be made (NULL for
// none). Asked for before anything is written: false when the broker's plugin would not read so much.
bool make_rules(const std::string &directory, const revocation_list &revoked, const stored_node *made,
		std::string &rules, std::string &error);

bool write_rules(const std::string &directory, const std::string &rules, std::string &error);

// The same two where there is a broker; without one the rules are empty and nothing is written. The second says what it
// does.
bool prepare_rules(const std::string &directory, const revocation_list &revoked, const stored_node *made,
		std::string &rules, std::string &error);
bool refresh_rules(const std::string &directory, const std::string &rules, std::ostream &out, std::string &error);

// Tells the user that the certificate ends with its CA, when that is a day or more before the end asked for.
std::string cut_short_text(const identity &made, int start_days, int days);

// Tells the user that the certificates from before stay good, and how they are taken back.
std::string stay_good_text(const std::string &directory, const std::string &name);

// The same when the certificate in the node's folder, which is about to be replaced, is good; otherwise nothing.
std::string replaced_text(
		const std::string &directory, const std::string &name, const identity &ca, const revocation_list &revoked);

// Says behind which bridge a name is already; empty for none.
std::string bridge_side_of(const std::string &directory, const std::string &name);
