# SPDX-License-Identifier: Apache-2.0
target_sources(light_shards_test PRIVATE ${PROJECT_SOURCE_DIR}/mem/light_stats.cpp)
