// Draws from tables whose rows say how often each comes.
#pragma once

#include <iterator>

#include "simulation/dice.h"

namespace morvik::proofs {

/// `rows`: at least one, each with a `weight`; their sum is above 0.
template <class Rows>
const auto& drawWeighted(const Rows& rows, simulation::Dice& dice) {
  double sum = 0;
  for (const auto& row : rows)
    sum += row.weight;
  double left = dice.between(0, sum);
  for (const auto& row : rows) {
    if (left < row.weight)
      return row;
    left -= row.weight;
  }
  return *std::prev(std::end(rows));
}

}  // namespace morvik::proofs
