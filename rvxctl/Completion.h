#pragma once
/// @file
/// What a shell offers behind the words that were typed so far.

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Host {

/// A disk or array that a word may name, and what it is fit for.
struct SCandidate {
  enum ETrait : unsigned int {
    DISK = 1,
    ARRAY = 2,
    READY = 4,       ///< nothing uses the disk
    RELEASABLE = 8,  ///< the disk is a spare or has failed
    REDUNDANT = 16,  ///< the array takes spares
    DEGRADED = 32,
    REBUILDING = 64,
    WHOLE_MODEL = 128  ///< neither: the plug-in or the adapter
  };
  std::string m_Name;
  unsigned int m_Traits;
};

/// The candidates as the kernel shows them to everybody below `root`: no disk is opened, which would need
/// rights, and would make it look used to a server that looks at it in that moment. The plug-in may manage
/// fewer.
std::vector<SCandidate> KernelCandidates(const std::string& root);

/// What may stand for the last of the words, which is typed half-way, a name each. Throws where it cannot be
/// told.
std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace Host
