#include <board/BoardId.h>

#include <iostream>

int main() {
  const BoardId board;
  std::cout << board.idDescription << "\n";
  return board.isBoardIdKnown() ? 0 : 1;
}
