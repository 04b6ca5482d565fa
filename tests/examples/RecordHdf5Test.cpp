#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using namespace Halden::Tavro::TestSupport;
using namespace testing;

namespace
{

ChildResult runExample(std::vector<std::string> arguments)
{
    return runInChild(
        [&]
        {
            std::vector<char*> pointers{const_cast<char*>(RECORD_HDF5)};
            std::transform(arguments.begin(), arguments.end(), std::back_inserter(pointers),
                           [](std::string& argument) { return argument.data(); });
            pointers.push_back(nullptr);
            execv(RECORD_HDF5, pointers.data());
            return 127;
        });
}

class RecordHdf5Test : public Test
{
protected:
    RecordHdf5Test()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "record-hdf5-XXXXXX").string();
        directory = mkdtemp(pattern.data());
    }

    ~RecordHdf5Test() override { std::filesystem::remove_all(directory); }

    std::filesystem::path directory;
};

std::vector<double> column(std::filesystem::path const& path, char const* name)
{
    H5::DataSet const samples = H5::H5File(path, H5F_ACC_RDONLY).openDataSet("samples");
    H5::CompType member(sizeof(double));
    member.insertMember(name, 0, H5::PredType::NATIVE_DOUBLE);
    std::vector<double> values(static_cast<std::size_t>(samples.getSpace().getSimpleExtentNpoints()));
    samples.read(values.data(), member);
    return values;
}

TEST_F(RecordHdf5Test, FileHoldsEachSampleInTheOrderOfTime)
{
    auto const path = directory / "load.h5";

    auto const result = runExample({path, "--samples", "30", "--period", "10"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    auto const seconds = column(path, "seconds");
    EXPECT_THAT(seconds, SizeIs(30));
    EXPECT_GE(seconds.front(), 0.0);
    EXPECT_GE(seconds.back(), 29 * 0.010);
    EXPECT_EQ(std::adjacent_find(seconds.begin(), seconds.end(), std::greater_equal<>()), seconds.end());
    EXPECT_THAT(column(path, "load"), AllOf(SizeIs(30), Each(Ge(0.0))));
}

TEST_F(RecordHdf5Test, ReaderSeesTheFileGrow)
{
    auto const result = runExample({directory / "load.h5", "--samples", "30", "--period", "10"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, MatchesRegex("([0-9]+ samples, the load is [0-9.e-]+ on average\n)+"));
    EXPECT_THAT(result.output, HasSubstr("\n30 samples, ")); // so there is a line before
}

TEST_F(RecordHdf5Test, FileThatCannotBeWrittenEndsItWithASentenceAndStatusOne)
{
    auto const result = runExample({"/nowhere/load.h5"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "record_hdf5: /nowhere/load.h5: H5File constructor: H5Fcreate failed\n");
}

TEST_F(RecordHdf5Test, BadOptionsEndItWithASentenceAndStatusTwo)
{
    for (auto const& [arguments, named] : {std::pair<std::vector<std::string>, char const*>{{}, "FILE"},
                                           {{"load.h5", "--samples", "0"}, "--samples"},
                                           {{"load.h5", "--period", "soon"}, "--period"},
                                           {{"load.h5", "--speed"}, "--speed"}})
    {
        auto const result = runExample(arguments);

        EXPECT_EQ(result.exitCode, 2) << named;
        EXPECT_THAT(result.output, AllOf(StartsWith("record_hdf5: "), HasSubstr(named)));
    }
}

}
