// Includes shared by the storage tests: the database fixture, the tree
// checker and the page format.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "seq_fixture.h"
#include "storage/page_format.h"
#include "tree_check.h"
