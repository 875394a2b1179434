# CMake options of the two README commands, shared by scripts/demo.sh,
# scripts/test.sh and the check that running them in that order still builds
# and runs every test (tools/tests/readme_order.sh). -U drops a cached value
# so that the project's default applies again, whatever configured the build
# folder before.
demo_opts=(-DOL_BUILD_TESTS=OFF -DOL_BUILD_BENCH=OFF -DOL_BUILD_TOOLS=ON -UOL_SUBSYSTEMS -UOL_TRACE_DEFINES)
test_opts=(-DOL_BUILD_TESTS=ON -UOL_TEST_GLOB -UOL_SUBSYSTEMS -UOL_TRACE_DEFINES)
release_test_opts=("${test_opts[@]}" -DOL_BUILD_TOOLS=ON -DOL_BUILD_BENCH=ON)
