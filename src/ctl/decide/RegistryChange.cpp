// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/RegistryChange.hpp"

#include <sys/stat.h>

Problem RegistryProblem(const FileFacts& file, uid_t launchers) {
    if (!file.Exists()) {
        return {};
    }
    const std::string subject = file.path + " is " + KindOf(file) + " of user " + std::to_string(file.owner);
    const std::string remedy =
        " See who made it, stop the launchers, remove it, then run cpuwardenctl prepare.";
    if (!S_ISREG(file.mode)) {
        return subject + ", no plain file, so that launches fail or write to where it leads." + remedy;
    }
    if (file.owner != launchers) {
        return subject + ", while launchers run as user " + std::to_string(launchers) +
               ", so that launches fail, or the other user decides what it says." + remedy;
    }
    if (file.links != 1) {
        return subject +
               " with another name beside this one, so that launchers may write to another's file." + remedy;
    }
    return {};
}

RegistryChange ChangeOf(const FileFacts& file, const Owners& owners) {
    const uid_t launchers = owners.launchers;
    RegistryChange change;
    if (!file.Exists()) {
        change.create = true;
        return change;
    }
    const bool isHandedOver = file.owner == owners.preparer || file.owner == owners.former;
    change.refusal = RegistryProblem(file, isHandedOver ? file.owner : launchers);
    if (!change.refusal) {
        change.giveToLaunchers = file.owner != launchers;
        change.replace = change.giveToLaunchers && file.owner != owners.preparer;
        change.takePermissions = (file.mode & permissionBits & ~registryMode) != 0;
    }
    return change;
}
