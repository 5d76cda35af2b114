// Tables of the live view: the choice of columns and rows, and the order.
#include "watch/history.h"
#include "watch/table.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

using namespace kavstat;

namespace {

struct person
{
    int id;
    std::string name;
    double weight;
};

class table : public testing::Test
{
protected:
    table()
    {
        people.columns = {
            number_column(
                "id", "ID", 4, 0, rows, [](const person& p) { return p.id; },
                [](int id) { return std::to_string(id); }),
            number_column(
                "weight", "WEIGHT", 6, 2, rows, [](const person& p) { return p.weight; },
                [](double weight) { return std::to_string(static_cast<int>(weight)); }),
            text_column("name", "NAME", 8, 1, rows, [](const person& p) { return p.name; }),
            text_column("note", "NOTE", 5, 3, rows, [](const person&) { return "some long note"; }),
        };
        people.rows = rows.size();
        people.subject = [this](std::size_t row) {
            return WatchSubject{SubjectKind::row, static_cast<int>(row), rows[row].id, 0};
        };
        people.search = [this](std::size_t row) { return rows[row].name; };
    }

    std::vector<int> ids(const std::string& column, bool b_reverse = false, const std::string& text = "")
    {
        filter.set(text);
        RowOrder order(people, *people.column(column), b_reverse, filter);
        std::vector<int> result;
        for (const std::size_t row : order.window(0, order.size())) {
            result.push_back(rows[row].id);
        }
        return result;
    }
    std::string head(std::size_t width, std::size_t first = 0, const std::string& ordered = "id")
    {
        const std::size_t at = *people.column(ordered);
        return table_head(people, choose_columns(people, width, at, first), at, width);
    }

    std::vector<person> rows{{10, "Berta", 60}, {2, "anton", 90}, {7, "Caesar", 60}, {12345, "Dora", 75}};
    WatchTable people;
    RowFilter filter;
};

} // namespace

TEST(spark_line, shows_the_last_values_by_their_height)
{
    const std::vector<float> values{9, 0, 1, 4, 8};
    EXPECT_EQ(spark_line(values, 4, true), " ▁▄█");
    EXPECT_EQ(spark_line(values, 4, false), " .=@");
    EXPECT_EQ(spark_line(values, 9, false), "@ .=#");
    EXPECT_EQ(spark_line(values, 4, false, 16), " .:=");
    EXPECT_EQ(spark_line({}, 9, true), "");
    EXPECT_EQ(spark_line({0, 0}, 9, true), "  ");
    EXPECT_EQ(spark_line(values, 0, true), "");
}

TEST(history, keeps_the_last_values_in_order)
{
    History history(600);
    for (int value = 0; value < 1000; ++value) {
        history.add(value);
    }
    EXPECT_EQ(history.size(), 600U);
    EXPECT_EQ(history.last().front(), 400);
    EXPECT_EQ(history.last(3), (std::vector<float>{997, 998, 999}));
}

TEST(history, marks_where_the_engine_was_started_anew)
{
    History history(3);
    history.mark_restart(); // no values before
    EXPECT_EQ(history.size(), 0U);
    history.add(8);
    history.mark_restart();
    history.add(4);
    EXPECT_EQ(spark_line(history.last(), 9, false), "@|=");
    EXPECT_EQ(spark_line(history.last(), 9, true), "█│▄");
    History other(3);
    other.add(1);
    other.mark_restart();
    other.add(2);
    const std::vector<float> sum = combined(history.last(), other.last(), [](float a, float b) { return a + b; });
    EXPECT_EQ(spark_line(sum, 9, false), "@|+"); // 9 and 6: 6 / 9 * 8 is 5.3
    history.add(std::numeric_limits<double>::infinity());
    EXPECT_EQ(spark_line(history.last(), 9, false), "|@ ");
}

TEST_F(table, rows_are_ordered_by_any_column_both_ways)
{
    EXPECT_EQ(ids("id"), (std::vector<int>{12345, 10, 7, 2}));
    EXPECT_EQ(ids("id", true), (std::vector<int>{2, 7, 10, 12345}));
    EXPECT_EQ(ids("weight"), (std::vector<int>{2, 12345, 10, 7})); // equal rows keep their order
    EXPECT_EQ(ids("name"), (std::vector<int>{10, 7, 12345, 2}));
    EXPECT_EQ(ids("name", true), (std::vector<int>{2, 12345, 7, 10}));
}

TEST_F(table, a_figure_that_is_not_known_comes_last)
{
    rows[0].weight = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(ids("weight"), (std::vector<int>{2, 12345, 7, 10}));
}

TEST_F(table, a_filter_keeps_rows_with_a_text_whatever_the_case)
{
    EXPECT_EQ(ids("id", false, "A"), (std::vector<int>{12345, 10, 7, 2}));
    EXPECT_EQ(ids("id", false, "AN"), (std::vector<int>{2}));
    EXPECT_EQ(ids("id", false, "x"), std::vector<int>{});
}

TEST_F(table, a_lasting_answer_of_the_filter_goes_with_the_row)
{
    people.b_search_is_lasting = true;
    EXPECT_EQ(ids("id", false, "an"), (std::vector<int>{2}));
    rows[1] = {3, "Emil", 1}; // another subject has the row
    RowOrder order(people, 0, false, filter);
    EXPECT_EQ(order.size(), 0U);
    filter.set("em");
    EXPECT_EQ(RowOrder(people, 0, false, filter).size(), 1U);
}

TEST_F(table, rows_that_are_not_there_are_passed_over)
{
    people.is_there = [](std::size_t row) { return row != 1; };
    EXPECT_EQ(ids("id"), (std::vector<int>{12345, 10, 7}));
}

TEST_F(table, any_window_of_rows_is_that_of_the_whole_order)
{
    rows.clear();
    std::mt19937 random(1);
    for (int id = 0; id < 500; ++id) {
        rows.push_back({id, "", static_cast<double>(random() % 50)});
    }
    people.rows = rows.size();
    RowOrder whole(people, 1, false, filter);
    const std::vector<std::size_t> all = whole.window(0, 500);
    for (int round = 0; round < 200; ++round) {
        const std::size_t first = random() % 510;
        const std::size_t count = random() % 60;
        RowOrder order(people, 1, false, filter);
        const std::vector<std::size_t> part = order.window(first, count);
        for (std::size_t at = 0; at < part.size(); ++at) {
            ASSERT_EQ(part[at], all[first + at]);
        }
        EXPECT_EQ(part.size(), std::min<std::size_t>(count, 500 - std::min<std::size_t>(first, 500)));
        const std::size_t row = random() % 500;
        EXPECT_EQ(all[*order.place_of(people, people.subject(row))], row);
    }
    EXPECT_FALSE(whole.place_of(people, {SubjectKind::row, 1, 999, 0}));
}

TEST_F(table, columns_are_chosen_by_importance_and_shown_in_their_order)
{
    EXPECT_EQ(head(40), "   *ID WEIGHT NAME     NOTE             ");
    EXPECT_EQ(head(28), "   *ID WEIGHT NAME     NOTE ");
    EXPECT_EQ(head(27), " > *ID WEIGHT NAME    ");
    EXPECT_EQ(head(20), " > *ID NAME    ");
    EXPECT_EQ(head(13), " > *ID WEIGHT"); // less important, but it fits
    EXPECT_EQ(head(2), " > *ID");
}

TEST_F(table, right_leads_to_the_columns_there_was_no_room_for)
{
    EXPECT_EQ(head(18), " > *ID NAME    ");
    EXPECT_EQ(head(18, 1), "<> *ID WEIGHT");
    EXPECT_EQ(head(18, 2), "<  *ID NOTE       ");
    EXPECT_EQ(head(18, 99), "<  *ID NOTE       ");
    EXPECT_EQ(head(20, 99), "<  *ID WEIGHT NOTE  ");                     // stops at the last one
    EXPECT_EQ(head(40, 99), "   *ID WEIGHT NAME     NOTE             "); // all columns fit
}

TEST_F(table, the_ordered_column_is_always_in_sight)
{
    EXPECT_EQ(head(20, 0, "note"), " >  ID WEIGHT *NOTE ");
    EXPECT_EQ(head(13, 0, "weight"), " >  ID *WEIG~");
}

TEST_F(table, what_is_cut_says_so)
{
    const ColumnChoice choice = choose_columns(people, 28, 0, 0);
    EXPECT_EQ(table_line(people, choice, 3, 28), "123~     75 Dora     some~");
    EXPECT_EQ(table_line(people, choose_columns(people, 40, 0, 0), 3, 40), "123~     75 Dora     some long note   ");
}
