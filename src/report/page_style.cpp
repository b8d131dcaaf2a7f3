#include "graphics/canvas.h"
#include "report/page.h"

namespace torvale::report {

namespace {

// One measure for text, two columns on wide screens (contents, page), colours by role.
constexpr std::string_view style = R"css(
:root{--ink:#1d1f21;--soft:#63676d;--rule:#dcdfe3;--faint:#f4f5f7;--paper:#fff;--link:#0a5f99;
--good:#00704f;--good-paper:#eef8f4;--caution:#8a5200;--caution-paper:#fdf6e9;--bad:#b3261e;--bad-paper:#fdf0ef;color-scheme:light dark}
*{box-sizing:border-box}
html{scroll-behavior:smooth;-webkit-text-size-adjust:100%}
body{margin:0;background:var(--paper);color:var(--ink);font:15px/1.5 system-ui,-apple-system,"Segoe UI","Helvetica Neue",Arial,sans-serif}
a{color:var(--link);text-decoration:none}a:hover{text-decoration:underline}
.page{display:grid;grid-template-columns:minmax(0,1fr);max-width:84rem;margin:0 auto;padding:1.5rem 1.25rem 4rem;gap:0 3rem}
header{border-bottom:1px solid var(--rule);padding-bottom:1rem;margin-bottom:1.25rem}
h1{font-size:1.7rem;line-height:1.2;margin:.1rem 0 .35rem;font-weight:650;overflow-wrap:anywhere}
h2{font-size:1.3rem;line-height:1.25;margin:2.4rem 0 .8rem;font-weight:650;overflow-wrap:anywhere}
h3{font-size:.8rem;letter-spacing:.07em;text-transform:uppercase;color:var(--soft);margin:2.2rem 0 .7rem;font-weight:600}
.kicker,.facts{margin:0;color:var(--soft);font-size:.88rem;overflow-wrap:anywhere}
nav{font-size:.88rem;margin-bottom:1rem}
nav p{margin:0;color:var(--soft)}
nav ol{list-style:none;margin:.4rem 0 0;padding:0}nav ol ol{padding-left:.9rem;margin:0 0 .4rem}
nav li{margin:.18rem 0;overflow:hidden;text-overflow:ellipsis}
.facts+.verdict,section>section{margin-top:.8rem}.verdict{border:1px solid var(--rule);border-left:4px solid var(--good);border-radius:4px;padding:.9rem 1.1rem;background:var(--good-paper)}
.verdict.caution{border-left-color:var(--caution);background:var(--caution-paper)}
.verdict.bad{border-left-color:var(--bad);background:var(--bad-paper)}
.headline{font-size:1.1rem;font-weight:600;margin:0}
.good .mark{color:var(--good)}.caution .mark{color:var(--caution)}.bad .mark{color:var(--bad)}
.mark{display:inline-block;width:1.4em;font-weight:700}
.verdict dl{display:grid;grid-template-columns:minmax(7rem,max-content) minmax(0,1fr);gap:.15rem 1.2rem;margin:.6rem 0 0 1.55em;font-size:.92rem}
.verdict dt{color:var(--soft)}.verdict dd{margin:0;overflow-wrap:anywhere}
.side{display:flex;flex-wrap:wrap;gap:0 2.5rem}.side>div{min-width:0;max-width:100%}
.wide{overflow-x:auto;margin:.9rem 0 1.5rem}figure .wide{margin:0}
table{border-collapse:separate;border-spacing:0;font-size:.9rem}
caption{text-align:left;font-weight:600;padding:0 0 .35rem;white-space:nowrap}
th,td{padding:.24rem .7rem;text-align:right;vertical-align:baseline;font-variant-numeric:tabular-nums;white-space:nowrap}
th{font-weight:500;color:var(--soft);vertical-align:bottom;white-space:normal;min-width:4rem}
/* Lines stand above their row: below, the next cell of a column that stays in place would cover them. */
td{border-top:1px solid var(--rule)}tbody tr:first-child td{border-top-color:var(--soft)}tbody tr:last-child td{border-bottom:1px solid var(--rule)}
td.t,th.t{text-align:left;white-space:normal;overflow-wrap:break-word}
th:first-child,td:first-child{position:sticky;left:0;background:var(--paper);padding-left:0}
tbody tr:hover td{background:var(--faint)}
.more{color:var(--soft);font-size:.85rem;margin:-1rem 0 1.5rem}
.pictures{display:grid;grid-template-columns:minmax(0,1fr);gap:1.6rem 2.2rem;grid-auto-flow:dense}
figure{margin:0;min-width:0}
figure svg{display:block;width:100%;height:auto}
figcaption{font-size:.85rem;color:var(--soft);margin-top:.35rem;max-width:46rem}figcaption b{color:var(--ink);font-weight:600}
.messages{list-style:none;padding:0;margin:.5rem 0 1.5rem;font-size:.92rem}
.messages li{padding:.45rem 0 .45rem .8rem;border-left:3px solid var(--rule);margin-bottom:.5rem}
.messages .warning{border-left-color:var(--caution)}.messages .error{border-left-color:var(--bad)}
.messages .code{color:var(--soft);font-size:.85em;margin-left:.4em;white-space:nowrap}
.messages .warning b{color:var(--caution)}.messages .error b{color:var(--bad)}
.messages pre{margin:.35rem 0 0;overflow-x:auto}
pre{font:13px/1.55 ui-monospace,"SF Mono",Menlo,Consolas,"DejaVu Sans Mono",monospace}
.program{background:var(--faint);border-radius:4px;padding:.8rem .9rem;overflow-x:auto;counter-reset:line;margin:0;tab-size:4}
.program span{display:block;counter-increment:line;min-height:1.55em}
.program span::before{content:counter(line);display:inline-block;width:2.6em;margin-right:1.2em;text-align:right;color:var(--soft);user-select:none}
footer{margin-top:3rem;border-top:1px solid var(--rule);padding-top:.7rem;color:var(--soft);font-size:.85rem}
@media(min-width:760px){.pictures{grid-template-columns:repeat(2,minmax(0,1fr))}.pictures .full{grid-column:1/-1}}
@media(min-width:1180px){.page{grid-template-columns:13rem minmax(0,1fr)}header,footer{grid-column:1/-1}
nav{position:sticky;top:1.25rem;align-self:start;max-height:calc(100vh - 2.5rem);overflow-y:auto}}
@media screen and (max-width:700px){/* shadows at the sides that hold more */
.wide{background:linear-gradient(to right,var(--paper),transparent) left/2rem 100% no-repeat local,linear-gradient(to left,var(--paper),transparent) right/2rem 100% no-repeat local,radial-gradient(farthest-side at 0 50%,var(--rule),transparent) left/.7rem 100% no-repeat scroll,radial-gradient(farthest-side at 100% 50%,var(--rule),transparent) right/.7rem 100% no-repeat scroll}
.full .wide svg{width:44rem}nav ol ol ol{display:none}}
@media screen and (max-width:600px){body{font-size:14px}h1{font-size:1.4rem}.verdict dl{grid-template-columns:minmax(0,1fr);margin-left:0}.verdict dd{margin-bottom:.35rem}
th,td{padding:.24rem .5rem}}
@media(prefers-color-scheme:dark){:root{--ink:#e4e4e4;--soft:#a0a4aa;--rule:#373b40;--faint:#202327;--paper:#17191c;--link:#7cc0f0;
--good:#4fd0a0;--good-paper:#16241f;--caution:#f0b35a;--caution-paper:#272016;--bad:#ff8a80;--bad-paper:#2a1a19}}
@media print{:root{--ink:#000;--soft:#555;--rule:#ccc;--faint:#f6f6f6;--paper:#fff;--link:#000;
--good:#00704f;--good-paper:#fff;--caution:#8a5200;--caution-paper:#fff;--bad:#b3261e;--bad-paper:#fff;color-scheme:light}
body{font-size:10pt}.page{display:block;max-width:none;padding:0}nav{display:none}.wide{overflow:visible}
table{font-size:8.5pt}th,td{padding:.15rem .4rem}th:first-child,td:first-child{position:static}
h2,h3,caption{break-after:avoid}figure,table,tr,.verdict,.messages li{break-inside:avoid}thead{display:table-header-group}
.pictures{display:block}figure{display:inline-block;width:48.5%;margin:0 1% 1.2rem 0;vertical-align:top}figure.full{display:block;width:auto}.program{white-space:pre-wrap;background:none;padding:0}}
)css";

} // namespace

std::string page_style()
{
  return std::string(style.substr(1)) + std::string(graphics::figure_style());
}

} // namespace torvale::report
