"""The card's page on the day the clocks go back, in headless Chromium: the
day has 25 hours, the axis shows the repeated hour twice, a section across
the change shows both zones, and a clip across the change asks for the
right seconds. Prints what it saw as JSON; exits 1 on the first failed
expectation.

usage: card_serve_dst_page.py URL DAY SECTION CHANGE"""
import json
import sys

from browser import check, run_page

TIMEOUT = 60


def main(b, url, day, section, change):
    change = int(change)
    b.navigate(url)
    b.wait_for("!!document.querySelector('#calendar button.selected')", TIMEOUT, "the days")
    b.click_element(f'#calendar button[data-day="{day}"]')
    bar = f'#timeline rect.section[data-name="{section}"]'
    b.wait_for(f"!!document.querySelector('{bar}')", TIMEOUT, f"section {section} on the timeline")
    title = b.evaluate("document.getElementById('day-title').textContent")
    check(title.startswith(f"{day} (25 hours)"), f"day title: {title}")
    tip = b.evaluate(f"document.querySelector('{bar} title').textContent")
    check(" 02:59:45 CEST-02:00:14 CET," in tip, f"the section's times: {tip}")
    # Six hours around the change: ticks every half hour of the clock.
    b.evaluate(f"state.viewSpan = 21600; panTo({change} - 10800)")
    ticks = b.evaluate("[...document.querySelectorAll('#timeline text.tick')].map(t => t.textContent)")
    check(ticks.count("02:00") == 2 and ticks.count("02:30") == 2, f"ticks: {ticks}")
    # A clip from ten seconds before the change to ten after: the fields
    # show 02:59:50 summer time and 02:00:10 winter time.
    b.evaluate(f"setClipRange({change - 10}, {change + 10})")
    fields = b.evaluate("['clip-from', 'clip-to'].map(f => document.getElementById(f).value + ' ' + "
                        "document.getElementById(f + '-zone').value)")
    check(fields == ["02:59:50 CEST", "02:00:10 CET"], f"clip fields: {fields}")
    b.click_element("#clip-make")
    b.wait_for("document.getElementById('clip-status').textContent.startsWith('done')", TIMEOUT, "the clip")
    asked = b.evaluate("performance.getEntriesByType('resource').map(e => e.name)"
                       ".filter(n => n.includes('/api/clips?'))")
    check(len(asked) == 1 and asked[0].endswith(f"from={change - 10}&to={change + 10}"), f"clip asked: {asked}")
    # A time the fields cannot name: refused with a message.
    b.evaluate("document.getElementById('clip-from').value = '02:30:00';"
               "document.getElementById('clip-from-zone').value = 'nowhere'")
    b.click_element("#clip-make")
    refusal = b.wait_for("(t => t.includes('no time of the clock') && t)"
                         "(document.getElementById('clip-status').textContent)", TIMEOUT, "the refusal")
    print(json.dumps({"title": title, "bar": tip, "ticks": ticks, "clip_fields": fields, "refusal": refusal}))


if __name__ == "__main__":
    run_page(main, *sys.argv[1:])
