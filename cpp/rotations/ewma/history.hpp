#pragma once

#include "rotations/history_offers.hpp"

namespace quorvane::rotations::ewma {

// How an average takes part in a history: with its memory, which no other object may have.
extern const ChildOpener opener;

}  // namespace quorvane::rotations::ewma
